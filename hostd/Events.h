// The host's D-Bus side: host events (type 1: the query port moved; type 2:
// a folder changed) and the message port the provider sends notices to.
//
// Events owns the emitter and the message-port server. Without a session
// bus (or with --no-bus) it logs one line and every emit is a no-op. emit
// calls may come from any thread; the message port answers on its own thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace hvfp {
class HostEventEmitter;
class MessagePortServer;
}  // namespace hvfp

namespace hvfp::hostd {

class Events {
 public:
  Events();
  ~Events();

  void start(bool useBus, bool quiet);
  // Folder `uuid` of mount `mountId` changed; mount 0 is the top level.
  void folderChanged(int64_t mountId, std::string_view uuid);
  void portMoved(int port);
  bool connected() const { return emitter_ != nullptr; }

 private:
  void emit(const std::string& json);

  std::unique_ptr<HostEventEmitter> emitter_;
  std::unique_ptr<MessagePortServer> port_;
  bool quiet_ = false;
};

}  // namespace hvfp::hostd
