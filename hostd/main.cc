// halvo-hostd: the reference host app. Runs the host until SIGINT/SIGTERM,
// or, with `ctl`, sends one command to a running host.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "Ctl.h"
#include "Host.h"
#include "platform/Log.h"

namespace {

std::filesystem::path defaultRoot() {
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg)
    return std::filesystem::path(xdg) / "halvo-hostd";
  const char* home = std::getenv("HOME");
  return std::filesystem::path(home ? home : ".") / ".local/share/halvo-hostd";
}

bool parsePorts(const std::string& text, std::vector<int>& out) {
  out.clear();
  std::stringstream ss(text);
  std::string part;
  while (std::getline(ss, part, ',')) {
    try {
      size_t used = 0;
      int p = std::stoi(part, &used);
      if (used != part.size() || p < 0 || p > 65535) return false;
      out.push_back(p);
    } catch (const std::exception&) {
      return false;
    }
  }
  return !out.empty();
}

int runHost(hvfp::hostd::HostConfig config) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);  // every thread inherits the mask
  signal(SIGPIPE, SIG_IGN);
  if (!hvfp::hostd::isLoopbackAddress(config.bind)) {
    std::cerr << "halvo-hostd: --bind " << config.bind
              << " refused: only loopback addresses (127.x.x.x) are served\n";
    return 2;
  }
  hvfp::hostd::Host host(std::move(config));
  if (auto started = host.start(); !started.ok()) {
    std::cerr << "halvo-hostd: " << started.failure().message << "\n";
    return 1;
  }
  int sig = 0;
  sigwait(&set, &sig);
  hvfp::log("halvo-hostd: signal {}, stopping", sig);
  host.stop();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "halvo-hostd: reference host app for halvofp (query, upload, download and admin servers on "
      "loopback)"};
  hvfp::hostd::HostConfig config;
  config.root = defaultRoot();
  std::string uploadPorts = "24755";
  app.add_option("--root", config.root, "data folder: SQLite metadata and blobs")
      ->capture_default_str();
  app.add_option("--port", config.port, "host query port (0: any free port)")
      ->capture_default_str();
  app.add_option("--upload-ports", uploadPorts,
                 "upload server ports, comma-separated (0: any free port)")
      ->capture_default_str();
  app.add_option("--download-port", config.downloadPort, "download server port")
      ->capture_default_str();
  app.add_option("--admin-port", config.adminPort, "admin endpoint port for ctl")
      ->capture_default_str();
  app.add_option("--bind", config.bind, "loopback address to listen on")->capture_default_str();
  app.add_flag("--force-uris", config.forceUris,
               "answer downloads with \"uris\" even when the file is local");
  app.add_option("--seed", config.seed, "fill an empty store with sample content (\"sample\")");
  app.add_flag(
      "--no-bus", [&](int64_t) { config.useBus = false; },
      "do not use the session bus (no host events)");
  app.add_flag("--quiet", config.quiet, "no per-request log lines");

  hvfp::hostd::CtlOptions ctl;
  ctl.root = config.root;
  auto* ctlCmd = hvfp::hostd::addCtlCommands(app, ctl);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  if (ctlCmd->parsed()) return hvfp::hostd::runCtl(ctl);
  if (!parsePorts(uploadPorts, config.uploadPorts)) {
    std::cerr << "halvo-hostd: --upload-ports wants ports like 24755,24756\n";
    return 2;
  }
  return runHost(std::move(config));
}
