#include "cli/MountCommand.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>
#include <vector>

#include "driver/Folder.h"
#include "driver/FuseAdapter.h"
#include "driver/StatusServer.h"
#include "extension/FileProviderExtension.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "platform/http/ReplyBuffers.h"

extern char** environ;

namespace hvfp::cli {
namespace fs = std::filesystem;
namespace {

// Mount points in /proc/self/mountinfo escape blanks and backslashes.
std::string unescapeMountField(const std::string& field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    auto octal = [&](size_t k) { return field[k] >= '0' && field[k] <= '7'; };
    if (field[i] == '\\' && i + 3 < field.size() && octal(i + 1) && octal(i + 2) && octal(i + 3)) {
      out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                               (field[i + 3] - '0'));
      i += 3;
    } else {
      out += field[i];
    }
  }
  return out;
}

// The file-system type mounted at `dir`, if something is.
std::optional<std::string> mountTypeAt(const std::string& dir) {
  std::ifstream in("/proc/self/mountinfo");
  std::optional<std::string> type;
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    std::vector<std::string> f;
    for (std::string w; fields >> w;) f.push_back(w);
    if (f.size() < 7 || unescapeMountField(f[4]) != dir) continue;
    for (size_t i = 6; i + 1 < f.size(); ++i)
      if (f[i] == "-") type = f[i + 1];
  }
  return type;
}

std::string absolute(const std::string& dir) {
  std::error_code ec;
  fs::path p = fs::weakly_canonical(fs::absolute(dir, ec), ec);
  return ec ? dir : p.string();
}

// One line for people, or empty when `dir` can be mounted.
std::string checkMountPoint(const std::string& dir) {
  if (::access("/dev/fuse", R_OK | W_OK) != 0)
    return "halvofp: /dev/fuse is missing or not usable (load the fuse module, or give the "
           "container the device)";
  std::error_code ec;
  if (!fs::exists(dir, ec)) return "halvofp: " + dir + " does not exist";
  if (!fs::is_directory(dir, ec)) return "halvofp: " + dir + " is not a directory";
  if (mountTypeAt(dir)) return "halvofp: " + dir + " is already mounted";
  if (!fs::is_empty(dir, ec) || ec) return "halvofp: " + dir + " is not empty";
  return "";
}

std::string portEvent(int64_t port) { return R"({"type":1,"port":)" + std::to_string(port) + "}"; }

// Asks the host for its mounts once, on a client of its own that starts
// nothing.
std::string checkHost(const std::optional<int64_t>& port) {
  HalvoProviderClient probe;
  if (port) probe.setNPort(*port);
  (void)probe.getLinks();
  QueryOutcome outcome = probe.lastOutcome();
  if (outcome.delivered) return "";
  return "halvofp: no host answers at " + probe.strHost() + ":" + std::to_string(probe.nPort()) +
         " (" + outcome.failure + "); is halvo-hostd running?";
}

// Plays the framework for the domain until the folder is unmounted. Reports
// "ok" or the failure on `ready` (-1: on `err`).
int serveFolder(const MountOptions& options, int ready, std::ostream& err) {
  auto report = [&](const std::string& line) {
    if (ready >= 0) {
      std::string text = line + "\n";
      (void)!::write(ready, text.data(), text.size());
      ::close(ready);
      ready = -1;
    } else if (line != "ok") {
      err << line << '\n';
    }
  };
  // The mount outlives its largest listing by days: memory sized for that
  // reply is given back once it was read.
  ReplyBuffers::setKeeping(false);
  HalvoProviderClient& client = HalvoProviderClient::shareHalvoProviderClient();
  FileProviderExtension extension(client, NSFileProviderDomain{options.domain, options.domain});
  if (options.port) client.onRecvFromApp(portEvent(*options.port));
  auto manager = client.providerManager();
  std::string tmp = client.strTempPath();
  if (tmp.empty()) {
    report("halvofp: no cache folder for the domain " + options.domain);
    return 1;
  }
  const std::string cache = fs::path(tmp).parent_path().string();
  uint64_t cacheSize = 0;
  if (options.cacheSize) {
    cacheSize = *options.cacheSize;
  } else {
    struct statvfs st {};
    if (::statvfs(cache.c_str(), &st) == 0)
      cacheSize = defaultCacheSize(uint64_t{st.f_blocks} * st.f_frsize);
  }
  log("halvofp: copies of contents in {} are kept to {} bytes", cache, cacheSize);
  driver::FuseAdapter adapter;
  driver::Folder folder(extension, manager, adapter, driver::FolderOptions{cache, cacheSize});
  // Up before the folder is mounted: once it shows, it answers.
  auto status = driver::StatusServer::start(
      cache + "/status.sock",
      [&] {
        driver::Status s{options.dir, options.domain, std::nullopt, ::getpid(), folder.status()};
        s.host = client.strHost() + ":" + std::to_string(client.nPort());
        return driver::statusJson(s);
      },
      [&] { folder.sampleTransfers(); });
  if (!status) log("halvofp: halvofp status cannot see this mount: {}", status.failure().message);
  if (auto mounted = adapter.mount(options.dir); !mounted) {
    report("halvofp: " + mounted.failure().message);
    return 1;
  }
  log("halvofp: {} mounted on {}", options.domain, options.dir);
  report("ok");
  int rc = adapter.serve(folder, true);
  // Unmounted: nothing is there to report on, while the uploads finish.
  if (status) status->reset();
  log("halvofp: {} unmounted", options.dir);
  if (!folder.finish(options.uploadWait))
    log("halvofp: uploads still running after {} s; their contents stay in {}/work",
        options.uploadWait.count(), fs::path(tmp).parent_path().string());
  return rc == 0 ? 0 : 1;
}

}  // namespace

std::optional<uint64_t> parseSize(const std::string& text) {
  if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0]))) return std::nullopt;
  size_t used = 0;
  uint64_t value = 0;
  try {
    value = std::stoull(text, &used);
  } catch (...) {
    return std::nullopt;
  }
  std::string unit = text.substr(used);
  for (char& c : unit) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  if (unit.size() > 1 && (unit.ends_with("IB") || unit.ends_with("B")))
    unit.resize(unit.size() - (unit.ends_with("IB") ? 2 : 1));
  static const std::string kUnits = "KMGT";
  int shift = 0;
  if (unit.size() > 1) return std::nullopt;
  if (unit.size() == 1) {
    size_t at = kUnits.find(unit[0]);
    if (at == std::string::npos) return std::nullopt;
    shift = 10 * static_cast<int>(at + 1);
  }
  if (shift && value > (UINT64_MAX >> shift)) return std::nullopt;
  return value << shift;
}

uint64_t defaultCacheSize(uint64_t fsBytes) { return std::min(uint64_t{10} << 30, fsBytes / 4); }

int mount(const MountOptions& given, std::ostream& err) {
  MountOptions options = given;
  options.dir = absolute(options.dir);
  // Every thread started from here on inherits these blocked; only the
  // thread serving the folder takes them, to unmount.
  sigset_t stops;
  sigemptyset(&stops);
  sigaddset(&stops, SIGINT);
  sigaddset(&stops, SIGTERM);
  sigaddset(&stops, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &stops, nullptr);

  if (auto why = checkMountPoint(options.dir); !why.empty()) {
    err << why << '\n';
    return 1;
  }
  if (auto why = checkHost(options.port); !why.empty()) {
    err << why << '\n';
    return 1;
  }
  if (options.foreground) {
    setLogSink(options.verbose ? LogSink::Stderr : LogSink::Silent);
    std::ostringstream failure;
    int rc = serveFolder(options, -1, failure);
    err << failure.str();
    return rc;
  }

  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
    err << "halvofp: cannot start the background process (" << std::strerror(errno) << ")\n";
    return 1;
  }
  pid_t pid = ::fork();
  if (pid < 0) {
    err << "halvofp: cannot start the background process (" << std::strerror(errno) << ")\n";
    return 1;
  }
  if (pid == 0) {
    ::close(pipeFds[0]);
    ::setsid();
    if (int null = ::open("/dev/null", O_RDWR); null >= 0) {
      ::dup2(null, 0);
      ::dup2(null, 1);
      ::dup2(null, 2);
      if (null > 2) ::close(null);
    }
    (void)!::chdir("/");
    ::openlog("halvofp", LOG_PID, LOG_USER);
    setLogSink(LogSink::Syslog);
    std::ostringstream unused;
    return serveFolder(options, pipeFds[1], unused);
  }
  ::close(pipeFds[1]);
  pthread_sigmask(SIG_UNBLOCK, &stops, nullptr);
  std::string line;
  char c;
  while (::read(pipeFds[0], &c, 1) == 1 && c != '\n') line += c;
  ::close(pipeFds[0]);
  if (line == "ok") return 0;
  int status = 0;
  ::waitpid(pid, &status, 0);
  err << (line.empty() ? "halvofp: the background process ended before the folder was mounted"
                       : line)
      << '\n';
  return 1;
}

int unmount(const std::string& given, std::ostream& err) {
  const std::string dir = absolute(given);
  auto type = mountTypeAt(dir);
  if (!type) {
    err << "halvofp: " << dir << " is not mounted\n";
    return 1;
  }
  if (*type != "fuse.halvofp") {
    err << "halvofp: " << dir << " is not a halvofp folder (it is " << *type << ")\n";
    return 1;
  }
  if (::umount2(dir.c_str(), 0) == 0) return 0;
  if (errno == EBUSY) {
    err << "halvofp: " << dir << " is busy: files or folders in it are in use\n";
    return 1;
  }
  // Not root: the setuid helper may.
  const char* argv[] = {"fusermount3", "-u", dir.c_str(), nullptr};
  pid_t pid = -1;
  int status = 0;
  if (posix_spawnp(&pid, "fusermount3", nullptr, nullptr, const_cast<char* const*>(argv),
                   environ) != 0 ||
      ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    err << "halvofp: cannot unmount " << dir << "\n";
    return 1;
  }
  return 0;
}

}  // namespace hvfp::cli
