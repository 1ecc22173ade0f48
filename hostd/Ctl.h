// `halvo-hostd ctl`: the command-line client of a running host's admin
// endpoint. Each command is one GET /ctl/<command>?<options> on the loopback
// admin port; the reply JSON is printed. Single-threaded; used from main().
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace hvfp::hostd {

struct CtlOptions {
  std::filesystem::path root;
  int adminPort = 0;  // 0: read it from the ports file under root
  std::string command;
  std::map<std::string, std::string> params;
};

// Adds the "ctl" subcommand and its commands to `app`; `options` is filled
// when it parses.
CLI::App* addCtlCommands(CLI::App& app, CtlOptions& options);
// Sends the command; prints the reply. Exit status: 0 on a 200 reply, 1 on
// another reply, 2 when the host cannot be reached.
int runCtl(const CtlOptions& options);
// The admin port published by the host running on `root`.
std::optional<int> adminPortFromRoot(const std::filesystem::path& root);

}  // namespace hvfp::hostd
