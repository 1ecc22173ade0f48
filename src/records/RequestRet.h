// The base of every record filled from a host reply, and the status that
// every reply carries.
//
// Records are plain values with public fields, shared by reference
// (std::shared_ptr) between the request that made them and the items and
// tasks that keep them. They have no locks: a record is built on one thread
// and then only read, or changed by one owner at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "records/JsonReading.h"

namespace hvfp {

struct BaseForJosnOrObject {
  virtual ~BaseForJosnOrObject() = default;
  // Fills the fields from a parsed reply; a value of the wrong kind leaves
  // the defaults.
  virtual void setValueWithJson(const JsonValue& json) { (void)json; }
};

// Makes a record of type T from a parsed reply (the platform's init:).
template <typename T>
std::shared_ptr<T> initWithJson(const JsonValue& json) {
  auto record = std::make_shared<T>();
  record->setValueWithJson(json);
  return record;
}

struct RequestRet : BaseForJosnOrObject {
  int64_t nStatusCode = 0;  // 200 is success to every caller
  int64_t nErrorCode = 0;
  NullableString strErrorMsg = "";
  NullableString strCookie = "";  // never read from a reply

  void setValueWithJson(const JsonValue& json) override;
};

using RequestRetRef = std::shared_ptr<RequestRet>;

}  // namespace hvfp
