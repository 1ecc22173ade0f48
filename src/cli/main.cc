// halvofp: the provider on the command line. Each subcommand plays the
// framework for one call against a running host app.
#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <iostream>

#include "cli/Console.h"
#include "cli/MountCommand.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"

namespace {
std::atomic<bool> gStop{false};
void onSignal(int) { gStop = true; }
}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "halvofp - the Halvo cloud drive as a file-provider domain.\n"
      "Talks to the host app (halvo-hostd) on 127.0.0.1; each command makes one framework call.",
      "halvofp"};
  app.require_subcommand(1);
  hvfp::cli::ConsoleOptions options;
  bool verbose = false;
  int64_t port = 0;
  app.add_option("--port", port, "the host app's query port (default 24753), sent as a port event")
      ->check(CLI::Range(int64_t{1}, int64_t{65535}));
  app.add_flag("--json", options.json, "one JSON object per item, every property by name");
  app.add_flag("-v,--verbose", verbose, "show the provider's log lines on stderr");
  app.add_option("--domain", options.domain, "the domain's name (names its cache folder)")
      ->capture_default_str();

  std::string lsContainer = "NSFileProviderRootContainerItemIdentifier";
  auto* ls = app.add_subcommand("ls", "list a container's items (default: the top level)");
  ls->add_option(
      "ID", lsContainer,
      "container identifier: a mount id, MOUNT/HASH, or NSFileProvider...ContainerItemIdentifier");

  std::string statId;
  auto* stat = app.add_subcommand("stat", "look up one item and show every property");
  stat->add_option("ID", statId, "item identifier")->required();

  std::string changesId;
  std::string anchor;
  auto* changes = app.add_subcommand("changes", "report a container's changes since a sync anchor");
  changes->add_option("ID", changesId, "container identifier")->required();
  auto* anchorOption =
      changes->add_option("--anchor", anchor, "sync anchor to report from (default: a new one)");

  auto* watch = app.add_subcommand("watch", "print host events and the changes each one signals");

  hvfp::cli::MountOptions mountOptions;
  std::string cacheSize;
  int64_t mountPort = 0;
  auto* mount = app.add_subcommand(
      "mount",
      "show the domain as a folder at DIR (FUSE): the top level lists the mounts and .Trash; "
      "reads fetch contents, writes are uploaded after the last close (fsync waits for the "
      "upload), rm moves to .Trash, mv out of .Trash restores, rm inside .Trash deletes");
  mount->add_option("DIR", mountOptions.dir, "an empty directory")->required();
  mount->add_flag("--foreground", mountOptions.foreground,
                  "stay attached, log to stderr with -v; Ctrl-C or SIGTERM unmounts (default: "
                  "detach once mounted and log to syslog)");
  mount
      ->add_option("--cache-size", cacheSize,
                   "room for local copies of downloaded contents, e.g. 512M or 10G (default: the "
                   "smaller of 10G and a quarter of the cache's file system); the least recently "
                   "used that no open file holds go first. Contents waiting for upload are kept "
                   "whatever their size")
      ->check([](const std::string& text) {
        return hvfp::cli::parseSize(text) ? std::string() : "a size like 512M or 10G";
      });
  mount
      ->add_option("--port", mountPort,
                   "the host app's query port (default 24753), sent as a port event")
      ->check(CLI::Range(int64_t{1}, int64_t{65535}));
  mount->add_option("--domain", mountOptions.domain, "the domain's name (names its cache folder)")
      ->capture_default_str();
  mount->add_flag("-v,--verbose", mountOptions.verbose,
                  "with --foreground: the provider's log lines on stderr");

  std::string unmountDir;
  auto* unmount = app.add_subcommand("unmount", "unmount a folder that halvofp mount made");
  unmount->add_option("DIR", unmountDir, "the folder")->required();

  CLI11_PARSE(app, argc, argv);
  if (app.get_option("--port")->count() > 0) options.port = port;

  // Before anything starts a thread: mount may detach into the background.
  if (*mount) {
    if (!cacheSize.empty()) mountOptions.cacheSize = hvfp::cli::parseSize(cacheSize);
    if (mount->get_option("--port")->count() > 0)
      mountOptions.port = mountPort;
    else
      mountOptions.port = options.port;
    if (mount->get_option("--domain")->count() == 0) mountOptions.domain = options.domain;
    mountOptions.verbose = mountOptions.verbose || verbose;
    return hvfp::cli::mount(mountOptions, std::cerr);
  }
  if (*unmount) return hvfp::cli::unmount(unmountDir, std::cerr);

  hvfp::setLogSink(verbose ? hvfp::LogSink::Stderr : hvfp::LogSink::Silent);
  hvfp::cli::Console console(hvfp::HalvoProviderClient::shareHalvoProviderClient(), options,
                             std::cout, std::cerr);
  if (*ls) return console.ls(lsContainer);
  if (*stat) return console.stat(statId);
  if (*changes)
    return console.changes(
        changesId, anchorOption->count() ? std::optional<std::string>(anchor) : std::nullopt);
  if (*watch) {
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    return console.watch(gStop);
  }
  return 2;
}
