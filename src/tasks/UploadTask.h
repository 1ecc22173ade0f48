// UploadTask: makes an item created in the domain exist in the cloud, and
// carries new contents of a file there. A folder is announced to the host
// ("create") and that is all. A file is copied to a staging copy in the
// domain's temporary directory (hashed as it is copied), announced with its
// SHA-1 and size, and, unless the cloud already holds those bytes, sent to
// the upload servers the host names: one server after another, each attempt
// opening a session through the host, asking how much the server holds,
// sending the rest in pieces straight to the server by HTTP PUT and closing
// the session through the host. The outcome reaches the framework once: the
// item under its lasting identifier, or NSCocoaErrorDomain 5120 whose user
// information holds "error" (the code) and "message".
//
// Every reply is untrusted: the hashes and path a create reply names, the
// server addresses, the session, the offsets the host and the servers give.
// Nothing is written outside the client's temporary directory, and the
// staging copy is gone when the task ends, however it ends.
//
// Ownership: made with std::make_shared by item creation or modification,
// which gives it its progress and the framework's handler and adds it to the
// client's upload queue. While a piece is in transfer the task is also held
// by that piece's session.
//
// Threads: main() runs on an upload-queue worker and blocks there on host
// queries, pauses and each piece's transfer. The transfer callbacks run on
// the main queue and only record the piece's outcome; the cancel, pause and
// resume handlers run on whatever thread the framework uses. The fields
// below are set at creation and then only used by main(); the state a
// piece shares with the callbacks and handlers is guarded by lock_.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Error.h"
#include "platform/ThreadAnnotations.h"
#include "platform/fileprovider/FileProvider.h"
#include "platform/http/TransferSession.h"
#include "records/ReplyRecords.h"
#include "tasks/HVTask.h"
#include "tasks/OnceHandler.h"

namespace hvfp {

class UploadTask final : public HVTask, public TransferSessionDelegate {
 public:
  using Handler = NSFileProviderItemChangeHandler;

  // Codes of the reports the task makes itself; the host's own codes pass
  // through unchanged.
  static constexpr int64_t kErrorOpenFile = 5;        // "打开文件失败"
  static constexpr int64_t kErrorInit = 7;            // empty message
  static constexpr int64_t kErrorRange = 10;          // empty message
  static constexpr int64_t kErrorClose = 12;          // empty message
  static constexpr int64_t kErrorReadFile = 13;       // "文件读取失败"
  static constexpr int64_t kErrorNoServer = 23;       // "无服务器地址"
  static constexpr int64_t kErrorServersSilent = 24;  // "上传服务器无响应"
  static constexpr int64_t kErrorUnexpected = 25;     // "上传失败"

  // The pauses of the session steps and of the server rotation. Fixed in
  // the product; tests shorten them.
  struct Timing {
    std::chrono::milliseconds stepPause{1000};    // between openings, between range queries
    std::chrono::milliseconds closePause{10000};  // between closes
    // Between turns of the rotation: the first, doubling up to the last.
    std::chrono::milliseconds firstTurnPause{1000};
    std::chrono::milliseconds lastTurnPause{8000};
    int maxTurns = 10;  // attempts before the servers count as silent
  };

  // init:parentIdentifier:filesize:createTime:lastTime:dir:filename:fullpath:itemfields:
  // Works out the mount and the path in it from the parent (which may cost
  // one "fileinfo" query), and enters a folder in the pending additions.
  UploadTask(HalvoProviderClient& client, std::string itemIdentifier, std::string parentIdentifier,
             uint64_t filesize, uint64_t createTime, uint64_t lastTime, bool dir,
             std::string filename, std::optional<std::string> fullpath, uint64_t itemfields);

  std::string strFilename;
  int64_t nMountID = 0;
  std::string strWebpath;  // replaced by the path the create reply names
  std::optional<std::string> strFullpath;
  std::string strTemppath;  // the staging copy, once made
  std::string strUuidHash;
  std::string strUpHash;
  std::string strStoragePoint;
  std::string strSession;
  std::optional<std::string> strCookie;
  std::string strUrl;  // the server of the running attempt
  bool bResetServer = false;
  std::string strFilehash;
  uint64_t ullFilesize = 0;
  uint64_t ullCreateTime = 0;
  uint64_t ullLastTime = 0;
  bool bDir = false;
  Timing timing;

  // Called exactly once: (item, fields still pending, false, none) or
  // (none, fields still pending, false, error); a cancellation gets
  // (none, 0, false, 3072).
  void setCreateHandler(Handler handler) { createHandler_.set(std::move(handler)); }
  // Also sets the progress's total to the file size.
  void setMProgress(std::shared_ptr<Progress> progress) override;

  // Length of the pieces of a file of that size.
  static uint64_t getSendSize(uint64_t filesize);

  // Transfer callbacks of the running piece (main queue).
  void didSendBodyData(TransferSession& session, TransferTask& task, int64_t bytesSent,
                       int64_t totalBytesSent, int64_t totalBytesExpectedToSend) override;
  void didCompleteWithError(TransferSession& session, TransferTask& task,
                            const TransferCompletion& completion) override;

 protected:
  void body() override;
  void failAfterException() override;
  void cancelled() override;
  void paused() override;
  void resumed() override;

 private:
  // How a step of an attempt ended. Complete: the task reported success.
  enum class Step { Done, Complete, Failed, Stopped };

  void uploadFolder();
  void uploadFile();
  // Takes hash, up hash and path from a create reply that says success;
  // false when any of them is not usable (the hash may be missing unless
  // `needHash`).
  bool takeCreateReply(const RetCreateFile& reply, bool needHash);
  void rotateServers(const std::vector<std::string>& servers);

  bool initUpload();
  bool openFile();
  Step startUpload(const std::string& server);
  Step sendInit();
  Step sendReq();
  Step sendPieces();
  Step sendFinish();
  bool sendAbort();
  bool sendPiece(uint64_t length);
  void judgePiece(const TransferCompletion& completion) REQUIRES(lock_);
  void showProgress() REQUIRES(lock_);
  uint64_t offset() const EXCLUDES(lock_);

  // Sleeps on the task's thread; false when the task was cancelled.
  bool pause(std::chrono::milliseconds length) EXCLUDES(lock_);
  void keepCookie(const RequestRet& reply);
  // Reports a failed step: the reply's code and message when its code is
  // above 0, else `fallback` with an empty message.
  void reportStepFailure(const RequestRet* reply, int64_t fallback);

  void setFinish();
  void setError(int64_t code, std::optional<std::string> msg);
  void removeStagingCopy();
  void closeFile();

  OnceHandler<NSFileProviderItemRef, uint64_t, bool, std::optional<Error>> createHandler_;
  int pFileHandle_ = -1;      // read handle on the staging copy during an attempt
  bool sessionOpen_ = false;  // a session of this attempt may hold bytes

  mutable Mutex lock_;
  std::condition_variable_any wake_;
  uint64_t ullOffset GUARDED_BY(lock_) = 0;  // the next byte to send
  uint64_t ullSize GUARDED_BY(lock_) = 0;    // length of the running piece
  uint64_t ullRead GUARDED_BY(lock_) = 0;    // of it, handed to the network
  bool bSendPiece GUARDED_BY(lock_) = false;
  bool pieceDone_ GUARDED_BY(lock_) = true;
  std::shared_ptr<TransferTask> uploadTask GUARDED_BY(lock_);
  std::chrono::steady_clock::time_point pieceStart_ GUARDED_BY(lock_);
  uint64_t shownHighWater_ GUARDED_BY(lock_) = 0;
};

}  // namespace hvfp
