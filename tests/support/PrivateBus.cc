#include "support/PrivateBus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern char** environ;

namespace hvfp::test {

namespace {

constexpr const char* kDaemon = "dbus-daemon";
constexpr const char* kAddressVariable = "DBUS_SESSION_BUS_ADDRESS";
// Only a guard against a wedged daemon, so a broken setup fails instead of hanging.
constexpr auto kStartLimit = std::chrono::seconds(30);

std::string errnoText(int error) {
  char buffer[256];
  return strerror_r(error, buffer, sizeof buffer);
}

// D-Bus address values escape every byte outside a small safe set.
std::string escapeAddressValue(const std::string& value) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : value) {
    bool safe = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                c == '-' || c == '_' || c == '/' || c == '.' || c == '\\' || c == '*';
    if (safe) {
      out += char(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

// A socket path must fit sockaddr_un, so a long TMPDIR falls back to /tmp.
std::string makeTempDir(std::string* error) {
  std::string base = "/tmp";
  if (const char* tmp = std::getenv("TMPDIR"); tmp && *tmp && std::strlen(tmp) < 60) base = tmp;
  std::string pattern = base + "/hvfp-bus-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (!mkdtemp(buffer.data())) {
    *error = "mkdtemp in " + base + ": " + errnoText(errno);
    return {};
  }
  return buffer.data();
}

// Reads the line the daemon prints once it listens; empty on EOF or time-out.
std::string readAddress(int fd, std::string* error) {
  std::string text;
  auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  while (text.find('\n') == std::string::npos) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      *error = "dbus-daemon did not print its address";
      return {};
    }
    pollfd pfd{fd, POLLIN, 0};
    int r = poll(&pfd, 1, int(left.count()));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) continue;
    char chunk[512];
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *error = "dbus-daemon exited before printing its address";
      return {};
    }
    text.append(chunk, size_t(n));
  }
  text.resize(text.find('\n'));
  return text;
}

}  // namespace

bool PrivateBus::available() {
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    std::string candidate = end > start ? dirs.substr(start, end - start) : std::string(".");
    candidate.append("/").append(kDaemon);
    if (access(candidate.c_str(), X_OK) == 0) return true;
    start = end + 1;
  }
  return false;
}

PrivateBus::PrivateBus() {
  if (!spawnDaemon()) return;
  if (const char* previous = std::getenv(kAddressVariable)) previousAddress_ = previous;
  setenv(kAddressVariable, address_.c_str(), 1);
  environmentSet_ = true;
}

PrivateBus::~PrivateBus() {
  if (environmentSet_) {
    if (previousAddress_) {
      setenv(kAddressVariable, previousAddress_->c_str(), 1);
    } else {
      unsetenv(kAddressVariable);
    }
  }
  if (pid_ > 0) {
    // Nothing of the daemon's state is worth a graceful stop, and SIGKILL cannot be ignored.
    kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  if (!dir_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
}

bool PrivateBus::spawnDaemon() {
  dir_ = makeTempDir(&error_);
  if (dir_.empty()) return false;

  const std::string config = dir_ + "/bus.conf";
  {
    // A minimal session bus: no service activation, no includes from the machine.
    std::ofstream out(config);
    out << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n"
           "  <type>session</type>\n"
           "  <listen>unix:path="
        << escapeAddressValue(dir_ + "/bus")
        << "</listen>\n"
           "  <auth>EXTERNAL</auth>\n"
           "  <policy context=\"default\">\n"
           "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
           "    <allow eavesdrop=\"true\"/>\n"
           "    <allow own=\"*\"/>\n"
           "  </policy>\n"
           "</busconfig>\n";
    if (!out.flush()) {
      error_ = "cannot write " + config;
      return false;
    }
  }

  const std::string daemonLog = dir_ + "/daemon.log";
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    error_ = "pipe: " + errnoText(errno);
    return false;
  }
  // The child gets the write end as fd 3; moving it above 3 first makes the
  // dup2 real, which is what clears close-on-exec.
  int writeEnd = fcntl(fds[1], F_DUPFD_CLOEXEC, 10);
  close(fds[1]);
  if (writeEnd < 0) {
    error_ = "fcntl: " + errnoText(errno);
    close(fds[0]);
    return false;
  }

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  // Its chatter (root cannot raise the fd limit in a container, ...) only matters when it fails.
  posix_spawn_file_actions_addopen(&actions, 1, daemonLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  posix_spawn_file_actions_adddup2(&actions, writeEnd, 3);
  // Keeps sockets the test process left inheritable from living on in the daemon.
  posix_spawn_file_actions_addclosefrom_np(&actions, 4);

  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);

  std::string configArg = "--config-file=" + config;
  std::vector<std::string> args = {kDaemon,       configArg,    "--nofork",
                                   "--nopidfile", "--nosyslog", "--print-address=3"};
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  pid_t pid = -1;
  int r = posix_spawnp(&pid, kDaemon, &actions, &attr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  close(writeEnd);
  if (r != 0) {
    error_ = std::string("cannot run ") + kDaemon + ": " + errnoText(r);
    close(fds[0]);
    return false;
  }
  pid_ = pid;

  address_ = readAddress(fds[0], &error_);
  close(fds[0]);
  if (address_.empty()) {
    kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    std::ifstream in(daemonLog);
    std::string said((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!said.empty()) error_ += "; it said: " + said;
    return false;
  }
  return true;
}

}  // namespace hvfp::test
