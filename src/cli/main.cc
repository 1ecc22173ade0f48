// halvofp: the provider on the command line. Each subcommand plays the
// framework for one call against a running host app.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <iostream>
#include <optional>

#include "cli/Console.h"
#include "cli/MountCommand.h"
#include "cli/StatusCommand.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"

namespace {
std::atomic<bool> gStop{false};
void onSignal(int) { gStop = true; }

// The first Ctrl-C cancels the running call; a second one ends the process
// at once, as it would without the handler.
void cancelOnInterrupt() {
  struct sigaction action {};
  action.sa_handler = onSignal;
  action.sa_flags = SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
}
}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "halvofp - the Halvo cloud drive as a file-provider domain.\n"
      "Talks to the host app (halvo-hostd) on 127.0.0.1; each command makes one framework call\n"
      "(a fetch or change first looks up the item or folder it names). Ctrl-C cancels a running "
      "call.",
      "halvofp"};
  app.require_subcommand(1);
  // "halvofp stat ID --json" works as well as "halvofp --json stat ID".
  app.fallthrough();
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

  // Commands that fetch or change: each prints the item the framework gets
  // back (as stat does), or what went wrong; Ctrl-C cancels.
  std::string itemId, secondArg, file, name;
  std::optional<std::string> optionalArg, putName;
  auto* get = app.add_subcommand(
      "get",
      "fetch an item's contents and copy them to DEST (default: the item's name in the "
      "current directory; a directory: the item's name in it; -: standard output)");
  get->add_option("ID", itemId, "item identifier")->required();
  get->add_option("DEST", optionalArg, "where the copy goes");
  auto* rename = app.add_subcommand("rename", "give an item a new name");
  rename->add_option("ID", itemId, "item identifier")->required();
  rename->add_option("NAME", name, "the new name")->required();
  auto* move = app.add_subcommand("move", "move an item into the folder PARENT");
  move->add_option("ID", itemId, "item identifier")->required();
  move->add_option("PARENT", secondArg, "identifier of the folder it goes into")->required();
  auto* trash = app.add_subcommand("trash", "move an item to the trash");
  trash->add_option("ID", itemId, "item identifier")->required();
  auto* restore = app.add_subcommand(
      "restore", "bring an item back from the trash (default: into the folder it was in)");
  restore->add_option("ID", itemId, "item identifier")->required();
  restore->add_option("PARENT", optionalArg, "identifier of the folder it goes into");
  auto* forget = app.add_subcommand(
      "forget",
      "delete an item from the domain: the host drops its sync record (the cloud keeps "
      "the item)");
  forget->add_option("ID", itemId, "item identifier")->required();
  auto* touch = app.add_subcommand(
      "touch", "change an item's dates alone; the answer is the host's record of it");
  touch->add_option("ID", itemId, "item identifier")->required();
  auto* put = app.add_subcommand("put", "create a file in the folder PARENT with FILE's contents");
  put->add_option("FILE", file, "a local file")->required();
  put->add_option("PARENT", secondArg, "identifier of the folder (a mount id, MOUNT/HASH)")
      ->required();
  put->add_option("--name", putName, "the new file's name (default: FILE's name)");
  auto* mkdir = app.add_subcommand("mkdir", "create a folder NAME in the folder PARENT");
  mkdir->add_option("PARENT", secondArg, "identifier of the folder (a mount id, MOUNT/HASH)")
      ->required();
  mkdir->add_option("NAME", name, "the new folder's name")->required();
  auto* update = app.add_subcommand("update", "replace a file's contents with FILE's");
  update->add_option("ID", itemId, "item identifier")->required();
  update->add_option("FILE", file, "a local file")->required();

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

  hvfp::cli::StatusOptions statusOptions;
  auto* status = app.add_subcommand(
      "status",
      "what running mounts are doing: mount point, domain and host; transfers in flight with "
      "bytes and rate; uploads waiting or failing, with the next attempt and last error; cache "
      "use and limit");
  status->add_option("DIR", statusOptions.dir,
                     "a folder in the mount to show (default: every running mount)");
  status->add_flag(
      "--json", statusOptions.json,
      "one JSON object per mount, one line each: mountpoint, domain, host, pid, transfers "
      "[name, direction, bytes, total, rate], pending [name, size, state, failures, "
      "next_attempt, error], cache [bytes, limit, copies]");

  std::string unmountDir;
  auto* unmount = app.add_subcommand("unmount", "unmount a folder that halvofp mount made");
  unmount->add_option("DIR", unmountDir, "the folder")->required();

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : hvfp::cli::Exit::BadInput;
  }
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
  if (*status) {
    statusOptions.json = statusOptions.json || options.json;
    return hvfp::cli::status(statusOptions, std::cout, std::cerr);
  }

  hvfp::setLogSink(verbose ? hvfp::LogSink::Stderr : hvfp::LogSink::Silent);
  options.terminal = ::isatty(STDERR_FILENO) == 1;
  if (!*ls && !*stat && !*changes && !*watch) cancelOnInterrupt();
  hvfp::cli::Console console(hvfp::HalvoProviderClient::shareHalvoProviderClient(), options,
                             std::cout, std::cerr);
  console.cancelOn(gStop);
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
  if (*get) return console.get(itemId, optionalArg);
  if (*rename) return console.rename(itemId, name);
  if (*move) return console.move(itemId, secondArg);
  if (*trash) return console.trash(itemId);
  if (*restore) return console.restore(itemId, optionalArg);
  if (*forget) return console.forget(itemId);
  if (*touch) return console.touch(itemId);
  if (*put) return console.put(file, secondArg, putName);
  if (*mkdir) return console.mkdir(secondArg, name);
  if (*update) return console.update(itemId, file);
  return hvfp::cli::Exit::BadInput;
}
