// Fuzzes host event texts through a started host client, as the event
// listener hands them over. Nothing may crash; an event signals at most one
// container, which is the root container or "<mount>" / "<mount>/<hash>"
// with a mount id other than 0; only a port event moves the query port.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "records/Json.h"
#include "records/JsonReading.h"

namespace {

hvfp::HalvoProviderClient* gClient = nullptr;
std::string gCacheDir;
std::optional<hvfp::HostEvent> gLast;

// A JSON object whose "type" reads as the number 1.
bool isPortEvent(const std::string& text) {
  auto event = hvfp::objectFromJSONString(text);
  const hvfp::JsonValue* type = event && event->isObject() ? event->find("type") : nullptr;
  if (!type || type->isNull() || type->isArray() || type->isObject()) return false;
  return hvfp::integerReading(hvfp::JsonScalar::of(type)) == 1;
}

bool isMountPrefix(const std::string& container) {
  const size_t end = container.find('/');
  const std::string mount = container.substr(0, end);
  if (mount.empty() || mount == "0" || mount == "-") return false;
  for (size_t i = mount[0] == '-' ? 1 : 0; i < mount.size(); ++i)
    if (mount[i] < '0' || mount[i] > '9') return false;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // A cache folder of its own and no session bus: events come only from here.
  char dir[] = "/tmp/hvfp-fuzz-events-XXXXXX";
  if (!::mkdtemp(dir)) std::abort();
  gCacheDir = dir;
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(gCacheDir, ignored);
  });
  ::setenv("XDG_CACHE_HOME", dir, 1);
  ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  hvfp::setLogSink(hvfp::LogSink::Silent);
  gClient = new hvfp::HalvoProviderClient;  // lives for the process
  gClient->start(hvfp::NSFileProviderDomain{"fuzz", "fuzz"});
  gClient->setEventTap([](const hvfp::HostEvent& event) { gLast = event; });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  constexpr int64_t kPort = 12345;
  gClient->setNPort(kPort);
  gLast.reset();
  gClient->onRecvFromApp(text);
  if (!gLast || gLast->object != text) std::abort();
  if (const auto& container = gLast->signalled) {
    if (gClient->nPort() != kPort) std::abort();
    if (*container != hvfp::NSFileProviderRootContainerItemIdentifier && !isMountPrefix(*container))
      std::abort();
  }
  if (gClient->nPort() != kPort && !isPortEvent(text)) std::abort();
  return 0;
}
