#include "Events.h"

#include "platform/Log.h"
#include "platform/ipc/DBusNames.h"
#include "platform/ipc/HostEvents.h"
#include "platform/ipc/MessagePort.h"
#include "records/Json.h"

namespace hvfp::hostd {

Events::Events() = default;
Events::~Events() = default;

void Events::start(bool useBus, bool quiet) {
  quiet_ = quiet;
  if (!useBus) {
    log("host events off (--no-bus)");
    return;
  }
  auto emitter = HostEventEmitter::open();
  if (!emitter) {
    log("no session bus, running without host events: {}", emitter.failure().message);
    return;
  }
  emitter_ = std::move(*emitter);
  auto port = MessagePortServer::start(dbus::kPortName, [this](int32_t msgid, const std::string& data) {
    if (!quiet_) log("message port: id {} {}", msgid, data);
    return std::string(R"({"status_code":200})");
  });
  if (port)
    port_ = std::move(*port);
  else
    log("message port not available: {}", port.failure().message);
}

void Events::emit(const std::string& json) {
  if (!emitter_) return;
  if (!emitter_->emit(json))
    log("host event not sent: {}", json);
  else if (!quiet_)
    log("host event {}", json);
}

void Events::folderChanged(int64_t mountId, std::string_view uuid) {
  std::string out;
  JsonWriter w(out);
  w.beginObject()
      .key("hash")
      .value(uuid)
      .key("mountid")
      .value(mountId)
      .key("type")
      .value(2)
      .endObject();
  emit(out);
}

void Events::portMoved(int port) {
  std::string out;
  JsonWriter(out).beginObject().key("port").value(port).key("type").value(1).endObject();
  emit(out);
}

}  // namespace hvfp::hostd
