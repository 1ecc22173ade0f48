#include "platform/ipc/HostEvents.h"

#include <cstring>
#include <exception>
#include <mutex>

#include "platform/Log.h"
#include "platform/ipc/DBusNames.h"
#include "platform/ipc/SessionBus.h"

namespace hvfp {

struct HostEventListener::Impl {
  Callback callback;
  ipc::BusPtr bus;
  ipc::SlotPtr match;
  std::unique_ptr<ipc::BusThread> thread;

  ~Impl() {
    thread.reset();  // first: the thread may still be inside the callback
    match.reset();
  }

  static int onSignal(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* self = static_cast<Impl*>(userdata);
    std::optional<std::string> object;
    const char* signature = sd_bus_message_get_signature(message, 1);
    const char* text = nullptr;
    if (signature && std::strcmp(signature, "s") == 0 &&
        sd_bus_message_read(message, "s", &text) >= 0 && text) {
      object = text;
    }
    try {
      self->callback(object);
    } catch (const std::exception& e) {
      // Unwinding through sd-bus's C frames is not an option.
      log("host events: the event handler failed: {}", e.what());
    } catch (...) {
      log("host events: the event handler failed");
    }
    return 0;
  }
};

Result<std::unique_ptr<HostEventListener>> HostEventListener::listen(Callback callback) {
  auto impl = std::make_unique<Impl>();
  impl->callback = std::move(callback);
  auto bus = ipc::openSessionBus();
  if (!bus) return bus.failure();
  impl->bus = std::move(*bus);

  sd_bus_slot* slot = nullptr;
  // Synchronous, so the bus routes events to us once start() returns.
  int r =
      sd_bus_match_signal(impl->bus.get(), &slot, nullptr, dbus::kEventPath, dbus::kEventInterface,
                          dbus::kEventMember, &Impl::onSignal, impl.get());
  impl->match.reset(slot);
  if (r < 0) return fail("cannot subscribe to host events: " + ipc::errorText(r));
  auto thread = ipc::BusThread::start(impl->bus.get(), "host events");
  if (!thread) return thread.failure();
  impl->thread = std::move(*thread);

  std::unique_ptr<HostEventListener> listener(new HostEventListener());
  listener->impl_ = std::move(impl);
  return listener;
}

HostEventListener::~HostEventListener() = default;

struct HostEventEmitter::Impl {
  std::mutex mutex;
  ipc::BusPtr bus;
};

Result<std::unique_ptr<HostEventEmitter>> HostEventEmitter::open() {
  auto bus = ipc::openSessionBus();
  if (!bus) return bus.failure();
  std::unique_ptr<HostEventEmitter> emitter(new HostEventEmitter());
  emitter->impl_ = std::make_unique<Impl>();
  emitter->impl_->bus = std::move(*bus);
  return emitter;
}

HostEventEmitter::~HostEventEmitter() = default;

bool HostEventEmitter::emit(const std::string& json) {
  // D-Bus strings end at the first NUL; sending the prefix would be a different event.
  if (json.find('\0') != std::string::npos) return false;
  std::lock_guard lock(impl_->mutex);
  sd_bus* bus = impl_->bus.get();
  int r = sd_bus_emit_signal(bus, dbus::kEventPath, dbus::kEventInterface, dbus::kEventMember, "s",
                             json.c_str());
  if (r < 0) return false;
  return sd_bus_flush(bus) >= 0;
}

}  // namespace hvfp
