#include "platform/ipc/MessagePort.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <exception>

#include "platform/Log.h"
#include "platform/ipc/DBusNames.h"
#include "platform/ipc/SessionBus.h"

namespace hvfp {

namespace {

struct ErrorHolder {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  ~ErrorHolder() { sd_bus_error_free(&error); }
};

// Reads an "ay" argument; sd-bus may hand out a null pointer for an empty array.
bool readBytes(sd_bus_message* message, std::string* out) {
  const void* bytes = nullptr;
  size_t size = 0;
  if (sd_bus_message_read_array(message, 'y', &bytes, &size) < 0) return false;
  if (size == 0) {
    out->clear();
  } else {
    out->assign(static_cast<const char*>(bytes), size);
  }
  return true;
}

uint64_t callTimeoutUsec(double sendTimeout, double receiveTimeout) {
  double total = sendTimeout + receiveTimeout;
  // sd-bus reads 0 as "its default of 25 s", so a zero or bad total becomes the shortest wait.
  if (!(total > 0)) return 1;
  if (total > 1e9) total = 1e9;
  uint64_t usec = uint64_t(std::llround(total * 1e6));
  return usec == 0 ? 1 : usec;
}

}  // namespace

struct MessagePortRemote::Impl {
  ipc::BusPtr bus;
  std::string name;
};

std::unique_ptr<MessagePortRemote> MessagePortRemote::create(const std::string& name) {
  auto impl = std::make_unique<Impl>();
  auto bus = ipc::openSessionBus();
  if (!bus) return nullptr;
  impl->bus = std::move(*bus);

  ErrorHolder error;
  sd_bus_message* raw = nullptr;
  int r = sd_bus_call_method(impl->bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                             "org.freedesktop.DBus", "NameHasOwner", &error.error, &raw, "s",
                             name.c_str());
  ipc::MessagePtr reply(raw);
  int hasOwner = 0;
  if (r < 0 || sd_bus_message_read(reply.get(), "b", &hasOwner) < 0 || !hasOwner) return nullptr;

  impl->name = name;
  std::unique_ptr<MessagePortRemote> remote(new MessagePortRemote());
  remote->impl_ = std::move(impl);
  return remote;
}

MessagePortRemote::~MessagePortRemote() = default;

std::optional<std::string> MessagePortRemote::sendRequest(int32_t msgid, const std::string& data,
                                                          double sendTimeout,
                                                          double receiveTimeout) {
  sd_bus* bus = impl_->bus.get();
  // Replies that came after an earlier call gave up would otherwise pile up
  // in the read queue, since nothing else dispatches this connection.
  while (sd_bus_process(bus, nullptr) > 0) {
  }

  sd_bus_message* raw = nullptr;
  int r = sd_bus_message_new_method_call(bus, &raw, impl_->name.c_str(), dbus::kPortPath,
                                         dbus::kPortInterface, dbus::kPortMethod);
  ipc::MessagePtr call(raw);
  if (r < 0) return std::nullopt;
  if (sd_bus_message_append(call.get(), "i", msgid) < 0) return std::nullopt;
  if (sd_bus_message_append_array(call.get(), 'y', data.data(), data.size()) < 0) {
    return std::nullopt;
  }

  ErrorHolder error;
  raw = nullptr;
  r = sd_bus_call(bus, call.get(), callTimeoutUsec(sendTimeout, receiveTimeout), &error.error,
                  &raw);
  ipc::MessagePtr reply(raw);
  if (r < 0) return std::nullopt;
  const char* signature = sd_bus_message_get_signature(reply.get(), 1);
  if (!signature || std::strcmp(signature, "ay") != 0) return std::nullopt;
  std::string bytes;
  if (!readBytes(reply.get(), &bytes)) return std::nullopt;
  return bytes;
}

struct MessagePortServer::Impl {
  Handler handler;
  std::string name;
  bool ownsName = false;
  ipc::BusPtr bus;
  ipc::SlotPtr object;
  std::unique_ptr<ipc::BusThread> thread;

  ~Impl() {
    thread.reset();  // first: the thread may be inside the handler
    if (ownsName) {
      // Explicitly, so the name is free for the next owner once we return;
      // closing the connection alone frees it only when the bus gets to it.
      sd_bus_release_name(bus.get(), name.c_str());
    }
    object.reset();
  }

  static int onSendRequest(sd_bus_message* message, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<Impl*>(userdata);
    int32_t msgid = 0;
    int r = sd_bus_message_read(message, "i", &msgid);
    if (r < 0) return r;
    std::string data;
    if (!readBytes(message, &data)) return -EINVAL;

    std::string answer;
    try {
      answer = self->handler(msgid, data);
    } catch (const std::exception& e) {
      // Unwinding through sd-bus's C frames is not an option; the caller gets an error reply.
      log("message port: the request handler failed: {}", e.what());
      return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "the request handler failed");
    } catch (...) {
      log("message port: the request handler failed");
      return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "the request handler failed");
    }

    sd_bus_message* raw = nullptr;
    r = sd_bus_message_new_method_return(message, &raw);
    ipc::MessagePtr reply(raw);
    if (r < 0) return r;
    r = sd_bus_message_append_array(reply.get(), 'y', answer.data(), answer.size());
    if (r < 0) return r;
    r = sd_bus_send(nullptr, reply.get(), nullptr);
    return r < 0 ? r : 1;
  }
};

Result<std::unique_ptr<MessagePortServer>> MessagePortServer::start(const std::string& name,
                                                                    Handler handler) {
  // sd-bus keeps the pointer, so the table must outlive every server.
  static const sd_bus_vtable kVtable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD_WITH_NAMES("SendRequest", "iay", SD_BUS_PARAM(msgid) SD_BUS_PARAM(data), "ay",
                               SD_BUS_PARAM(reply), &Impl::onSendRequest, 0),
      SD_BUS_VTABLE_END,
  };

  auto impl = std::make_unique<Impl>();
  impl->handler = std::move(handler);
  impl->name = name;
  auto bus = ipc::openSessionBus();
  if (!bus) return bus.failure();
  impl->bus = std::move(*bus);

  // The object exists before the name does, so no early caller finds the name without it.
  sd_bus_slot* slot = nullptr;
  int r = sd_bus_add_object_vtable(impl->bus.get(), &slot, dbus::kPortPath, dbus::kPortInterface,
                                   kVtable, impl.get());
  impl->object.reset(slot);
  if (r < 0) return fail("cannot export the message port object: " + ipc::errorText(r));

  r = sd_bus_request_name(impl->bus.get(), name.c_str(), 0);
  if (r < 0) {
    return fail(r == -EEXIST ? "the bus name " + name + " is already owned"
                             : "cannot own the bus name " + name + ": " + ipc::errorText(r));
  }
  impl->ownsName = true;

  auto thread = ipc::BusThread::start(impl->bus.get(), "message port " + name);
  if (!thread) return thread.failure();
  impl->thread = std::move(*thread);

  std::unique_ptr<MessagePortServer> server(new MessagePortServer());
  server->impl_ = std::move(impl);
  return server;
}

MessagePortServer::~MessagePortServer() = default;

}  // namespace hvfp
