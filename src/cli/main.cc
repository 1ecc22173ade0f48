// halvofp: the provider on the command line. Each subcommand plays the
// framework for one call against a running host app.
#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <iostream>

#include "cli/Console.h"
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

  CLI11_PARSE(app, argc, argv);
  if (app.get_option("--port")->count() > 0) options.port = port;

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
