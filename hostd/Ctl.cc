#include "Ctl.h"

#include <httplib.h>

#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

#include "Host.h"
#include "records/Json.h"

namespace hvfp::hostd {

namespace {

struct CommandSpec {
  const char* name;
  const char* help;
  std::vector<const char*> options;      // --option=value pairs, passed as they are
  std::vector<const char*> positionals;  // positional arguments, passed by these names
};

const std::vector<CommandSpec>& commands() {
  static const std::vector<CommandSpec> specs = {
      {"status", "print ports, upload servers, armed faults, change cursor", {}, {}},
      {"add-mount", "add a mount (library)", {"name", "lasttime"}, {}},
      {"add-folder",
       "add a folder under --parent UUID or --parent-path P (default: the mount root)",
       {"mount", "name", "parent", "parent-path"},
       {}},
      {"add-file",
       "add a file; contents from --source FILE, --text T or --size N [--seed S]",
       {"mount", "name", "parent", "parent-path", "source", "text", "size", "seed"},
       {}},
      {"write",
       "give a file new contents (--source, --text or --size)",
       {"mount", "uuid", "path", "source", "text", "size", "seed"},
       {}},
      {"rename",
       "rename an item (a mount root renames the mount)",
       {"mount", "uuid", "path", "name"},
       {}},
      {"move",
       "move an item into folder --to UUID or --to-path P",
       {"mount", "uuid", "path", "to", "to-path"},
       {}},
      {"trash", "move an item to the trash", {"mount", "uuid", "path"}, {}},
      {"restore", "bring an item back from the trash", {"mount", "uuid", "path"}, {}},
      {"delete", "remove an item and everything below it for good", {"mount", "uuid", "path"}, {}},
      {"move-port",
       "listen for queries on PORT, announce it (type 1 event), close the old port",
       {},
       {"port"}},
      {"force-uris",
       "1: downloads always get \"uris\", never \"fullpath\"; 0: back to normal",
       {},
       {"on"}},
      {"fault",
       "arm a fault for the next --count replies of --target (a query type, \"piece\" or "
       "\"blob\"); "
       "--kind status|body|notjson|delay|drop|expect|complete|reset with --status, --code, --msg, "
       "--body, "
       "--delay MS, --expect OFFSET",
       {"target", "kind", "count", "status", "code", "msg", "body", "delay", "expect"},
       {}},
      {"clear-faults", "disarm every fault", {}, {}},
      {"upload-down",
       "stop the upload server on PORT (session steps naming it get 503)",
       {},
       {"port"}},
      {"upload-up", "start the upload server on PORT again", {}, {"port"}},
  };
  return specs;
}

}  // namespace

std::optional<int> adminPortFromRoot(const std::filesystem::path& root) {
  std::ifstream f(root / kPortsFile);
  if (!f) return std::nullopt;
  std::stringstream ss;
  ss << f.rdbuf();
  auto v = objectFromJSONString(ss.str());
  if (!v) return std::nullopt;
  auto admin = v->find("admin");
  if (!admin) return std::nullopt;
  if (auto i = std::get_if<int64_t>(&admin->storage())) return static_cast<int>(*i);
  if (auto u = std::get_if<uint64_t>(&admin->storage())) return static_cast<int>(*u);
  return std::nullopt;
}

CLI::App* addCtlCommands(CLI::App& app, CtlOptions& options) {
  auto* ctl = app.add_subcommand("ctl", "control a running halvo-hostd through its admin endpoint");
  ctl->add_option("--root", options.root, "the host's data folder (to find its admin port)");
  ctl->add_option("--admin-port", options.adminPort,
                  "the host's admin port (default: from --root)");
  ctl->require_subcommand(1);
  for (auto& spec : commands()) {
    auto* sub = ctl->add_subcommand(spec.name, spec.help);
    sub->callback([&options, name = std::string(spec.name)] { options.command = name; });
    for (auto* opt : spec.options)
      sub->add_option(std::string("--") + opt, options.params[opt])->capture_default_str();
    for (auto* pos : spec.positionals) sub->add_option(pos, options.params[pos])->required();
  }
  return ctl;
}

int runCtl(const CtlOptions& options) {
  int port = options.adminPort;
  if (port == 0) {
    auto p = adminPortFromRoot(options.root);
    if (!p) {
      std::cerr << "halvo-hostd ctl: no running host found under " << options.root
                << " (give --admin-port or --root)\n";
      return 2;
    }
    port = *p;
  }
  httplib::Params params;
  for (auto& [k, v] : options.params)
    if (!v.empty()) params.emplace(k, v);
  if (options.command == "force-uris") {
    auto& on = params.find("on")->second;
    if (on == "on" || on == "true") on = "1";
    if (on == "off" || on == "false") on = "0";
  }
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(120, 0);
  auto res = client.Get("/ctl/" + options.command, params, httplib::Headers{});
  if (!res) {
    std::cerr << "halvo-hostd ctl: cannot reach the host on port " << port << ": "
              << httplib::to_string(res.error()) << "\n";
    return 2;
  }
  std::cout << res->body << "\n";
  return res->status == 200 ? 0 : 1;
}

}  // namespace hvfp::hostd
