// Message port over D-Bus: the stand-in for the platform's remote message
// ports. The host app owns the bus name kPortName and answers SendRequest
// (i msgid, ay data) -> (ay reply).
//
// MessagePortRemote is one attempt's remote port: create() fails when no one
// owns the name (the port cannot be created); sendRequest() makes one call
// whose time-out is the send plus receive time-outs. Each object is used by
// one thread at a time and closed when destroyed.
//
// MessagePortServer owns the name and a thread that answers each request
// with the handler's reply; the handler runs on that thread, one request at a
// time, and must not destroy its own server. start() and the destructor may be
// called from any other thread; once the destructor returns the name is free.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Result.h"

namespace hvfp {

class MessagePortRemote {
 public:
  static std::unique_ptr<MessagePortRemote> create(const std::string& name);
  ~MessagePortRemote();

  // The reply bytes, or std::nullopt when the call failed or timed out.
  std::optional<std::string> sendRequest(int32_t msgid, const std::string& data, double sendTimeout,
                                         double receiveTimeout);

 private:
  MessagePortRemote() = default;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

class MessagePortServer {
 public:
  using Handler = std::function<std::string(int32_t msgid, const std::string& data)>;

  // Fails when there is no session bus or the name is taken, saying why.
  static Result<std::unique_ptr<MessagePortServer>> start(const std::string& name, Handler handler);
  ~MessagePortServer();  // releases the name and stops the thread

 private:
  MessagePortServer() = default;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace hvfp
