// Internal to platform/ipc: session-bus connections and the thread that
// dispatches one. Not for use outside this folder.
//
// A BusPtr owns one sd-bus connection; sd-bus objects are not thread-safe, so
// each connection is used by one thread at a time. BusThread takes the
// connection over while it runs: between start() and the end of its
// destructor only the dispatch thread touches the bus, and the owner may use
// it again after the BusThread is gone. start() and the destructor are called
// by the owner's thread; the destructor must not run on the dispatch thread
// itself (it joins it).
#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "platform/Result.h"

namespace hvfp::ipc {

struct BusCloser {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using BusPtr = std::unique_ptr<sd_bus, BusCloser>;

struct SlotCloser {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using SlotPtr = std::unique_ptr<sd_bus_slot, SlotCloser>;

struct MessageCloser {
  void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageCloser>;

// The text for a negative sd-bus return code.
std::string errorText(int negativeErrno);

// A connection to the session bus with the handshake done, so a bus that
// accepts the socket but never answers shows up here rather than later.
// The failure says why there is none.
Result<BusPtr> openSessionBus();

class BusThread {
 public:
  // `bus` must outlive the BusThread. `label` starts the log line written
  // when the connection breaks.
  static Result<std::unique_ptr<BusThread>> start(sd_bus* bus, std::string label);
  ~BusThread();  // wakes the thread and joins it; a running handler finishes first

  BusThread(const BusThread&) = delete;
  BusThread& operator=(const BusThread&) = delete;

 private:
  BusThread(sd_bus* bus, std::string label, int wakeFd);
  void run();

  sd_bus* bus_;
  std::string label_;
  int wakeFd_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace hvfp::ipc
