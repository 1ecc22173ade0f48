// NSFileProviderManager: the framework's per-domain manager.
//
// managerForDomain() hands out one manager per domain identifier for the
// life of the process. The manager makes the domain's temporary directory
// ($XDG_CACHE_HOME/halvofp/<domain>/tmp, default ~/.cache/...) and forwards
// container signals to whoever drives the domain (the FUSE driver, the
// console's watch): that party installs a signal handler. Thread-safe.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Error.h"
#include "platform/fileprovider/FileProvider.h"

namespace hvfp {

class NSFileProviderManager {
 public:
  using SignalHandler = std::function<void(const std::string& containerIdentifier)>;

  // Empty for a domain without an identifier, or one that cannot name a
  // folder ("/", "..").
  static std::shared_ptr<NSFileProviderManager> managerForDomain(
      const NSFileProviderDomain& domain);

  const NSFileProviderDomain& domain() const { return domain_; }

  // The folder that holds each domain's cache folder ($XDG_CACHE_HOME/halvofp).
  static std::string domainsFolder();

  // Creates the directory when missing; std::nullopt (and `error`) when it
  // cannot be made.
  std::optional<std::string> temporaryDirectoryURLWithError(Error* error = nullptr);

  // Tells the domain's driver that a container changed. The completion
  // handler runs once, after the driver's handler (or at once without one),
  // with no error.
  void signalEnumeratorForContainerItemIdentifier(
      const std::string& containerIdentifier,
      std::function<void(std::optional<Error>)> completionHandler);

  void setSignalHandler(SignalHandler handler);

  explicit NSFileProviderManager(NSFileProviderDomain domain) : domain_(std::move(domain)) {}

 private:
  NSFileProviderDomain domain_;
  std::mutex mutex_;
  SignalHandler handler_;
};

}  // namespace hvfp
