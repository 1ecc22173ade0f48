#include "platform/fileprovider/NSFileProviderManager.h"

#include <cstdlib>
#include <filesystem>
#include <map>
#include <system_error>

namespace hvfp {
namespace {

std::filesystem::path cacheHome() {
  if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg && *xdg == '/') return xdg;
  if (const char* home = std::getenv("HOME"); home && *home)
    return std::filesystem::path(home) / ".cache";
  return std::filesystem::temp_directory_path();
}

bool usableAsFolderName(const std::string& id) {
  return !id.empty() && id != "." && id != ".." && id.find('/') == std::string::npos &&
         id.find('\0') == std::string::npos;
}

}  // namespace

std::shared_ptr<NSFileProviderManager> NSFileProviderManager::managerForDomain(
    const NSFileProviderDomain& domain) {
  static std::mutex mutex;
  static auto* managers = new std::map<std::string, std::shared_ptr<NSFileProviderManager>>;
  if (!usableAsFolderName(domain.identifier)) return nullptr;
  std::lock_guard lock(mutex);
  auto& slot = (*managers)[domain.identifier];
  if (!slot) slot = std::make_shared<NSFileProviderManager>(domain);
  return slot;
}

std::string NSFileProviderManager::domainsFolder() { return (cacheHome() / "halvofp").string(); }

std::optional<std::string> NSFileProviderManager::temporaryDirectoryURLWithError(Error* error) {
  namespace fs = std::filesystem;
  const fs::path domains = domainsFolder();
  const fs::path dir = domains / domain_.identifier / "tmp";
  std::error_code ec;
  // Copies of the user's files live below: only the user may look in, also
  // where an earlier version made the folder open to others.
  fs::create_directories(domains, ec);
  if (!ec) fs::permissions(domains, fs::perms::owner_all, fs::perm_options::replace, ec);
  if (!ec) fs::create_directories(dir, ec);
  if (ec) {
    if (error)
      *error = Error{"NSCocoaErrorDomain", 513, {{"path", dir.string()}, {"reason", ec.message()}}};
    return std::nullopt;
  }
  return dir.string();
}

void NSFileProviderManager::signalEnumeratorForContainerItemIdentifier(
    const std::string& containerIdentifier,
    std::function<void(std::optional<Error>)> completionHandler) {
  SignalHandler handler;
  {
    std::lock_guard lock(mutex_);
    handler = handler_;
  }
  if (handler) handler(containerIdentifier);
  if (completionHandler) completionHandler(std::nullopt);
}

void NSFileProviderManager::setSignalHandler(SignalHandler handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

}  // namespace hvfp
