// The records of the host's other replies, and the two small records the
// host client keeps in memory. Unlike HVFileItem, reply records read their
// keys even when "error_code" is not 0. Ownership and threading as for
// RequestRet.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "records/RequestRet.h"

namespace hvfp {

// Where a file's contents can be had ("download").
struct RetOpen : RequestRet {
  NullableString strFileHash = "";  // empty: no download possible
  NullableString strUuidHash = "";
  NullableString strFullPath = "";  // set when the host holds the file locally
  uint64_t ullFileSize = 0;
  uint64_t ullDateline = 0;
  int64_t nLock = 0;
  int64_t nLockID = 0;                // read only while nLock is set
  std::vector<std::string> urlArray;  // download addresses; the first is used

  void setValueWithJson(const JsonValue& json) override;
};

// The answer to announcing a new file or folder ("create").
struct RetCreateFile : RequestRet {
  int64_t nState = 0;  // 1 with a hash: the cloud already holds the contents
  NullableString strHash = "";
  NullableString strUpHash = "";
  NullableString strFileHash = "";
  NullableString strStoragePoint = "";  // never null after reading
  NullableString strWebpath = "";       // from "fullpath"
  uint64_t ullFileSize = 0;
  uint64_t ullLastDateline = 0;
  std::vector<std::string> arrayServers;
  std::vector<std::string> arrayCacheServers;

  void setValueWithJson(const JsonValue& json) override;
};

struct RetUploadInit : RequestRet {
  int64_t piecelen = 0;  // stated by the host, not used for the pieces
  NullableString session = "";

  void setValueWithJson(const JsonValue& json) override;
};

struct RetUploadReq : RequestRet {
  uint64_t offset = 0;  // where the upload goes on

  void setValueWithJson(const JsonValue& json) override;
};

struct RetNameFile : RequestRet {};

struct RetMoveFile : RequestRet {
  NullableString strHash;     // the item's uuid hash after the move
  NullableString strWebpath;  // from "fullpath"

  void setValueWithJson(const JsonValue& json) override;
};

// A deletion notice; no request of the provider produces one.
struct ProviderDeleteInfo : RequestRet {
  NullableString strHash;
  NullableString strUpHash;  // from "uphash"
  int64_t nMountID = 0;

  void setValueWithJson(const JsonValue& json) override;
};

// A folder created in the domain that the host may not know yet.
struct AddFileInfo {
  std::string itemidentifier;
  std::string strWebpath;
  int64_t nMountID = 0;
};

// The display name enumeration gave a mount root in place of its own.
struct RootChangeName {
  std::string itemidentifier;
  std::string strName;
};

using RetOpenRef = std::shared_ptr<RetOpen>;
using RetCreateFileRef = std::shared_ptr<RetCreateFile>;
using RetUploadInitRef = std::shared_ptr<RetUploadInit>;
using RetUploadReqRef = std::shared_ptr<RetUploadReq>;
using RetNameFileRef = std::shared_ptr<RetNameFile>;
using RetMoveFileRef = std::shared_ptr<RetMoveFile>;
using AddFileInfoRef = std::shared_ptr<AddFileInfo>;
using RootChangeNameRef = std::shared_ptr<RootChangeName>;

}  // namespace hvfp
