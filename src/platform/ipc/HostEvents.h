// Host events over D-Bus: the stand-in for the platform's distributed
// notifications named "HVProviderClientEvent".
//
// HostEventListener owns a connection to the session bus and one thread that
// receives the event signal and hands each to the callback, on that thread,
// in arrival order. The callback receives the signal's text argument, or
// std::nullopt when the signal does not carry exactly one text (the object is
// not a text). Events sent after listen() returns are not missed. The
// callback must not destroy its own listener (the destructor joins that
// thread). listen() and the destructor may be called from any other thread.
//
// HostEventEmitter owns its own connection; any thread may call emit(), and
// the event has left the process when emit() returns.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Result.h"

namespace hvfp {

class HostEventListener {
 public:
  using Callback = std::function<void(const std::optional<std::string>& object)>;

  // Fails when there is no session bus, saying why.
  static Result<std::unique_ptr<HostEventListener>> listen(Callback callback);
  ~HostEventListener();  // stops the thread and closes the connection

  HostEventListener(const HostEventListener&) = delete;
  HostEventListener& operator=(const HostEventListener&) = delete;

 private:
  HostEventListener() = default;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

class HostEventEmitter {
 public:
  // Fails when there is no session bus, saying why.
  static Result<std::unique_ptr<HostEventEmitter>> open();
  ~HostEventEmitter();

  // Sends one event whose object is `json`; false when the bus refused it
  // (no connection, or text D-Bus cannot carry: invalid UTF-8 or a NUL).
  bool emit(const std::string& json);

 private:
  HostEventEmitter() = default;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace hvfp
