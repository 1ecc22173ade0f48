#include "support/ChildProcess.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <thread>

extern char** environ;

namespace hvfp::test {
namespace {

int exitCodeOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

// posix_spawn rather than fork: the test programs run threads, and a forked
// child of a threaded process may deadlock in anything but async-signal-safe
// calls (opening the log with stdio among them).
pid_t spawnWith(const std::vector<std::string>& args, posix_spawn_file_actions_t& actions) {
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

}  // namespace

pid_t spawn(const std::vector<std::string>& args, const std::filesystem::path& logFile) {
  if (args.empty()) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  return spawnWith(args, actions);
}

pid_t spawn(const std::vector<std::string>& args, const std::filesystem::path& outFile,
            const std::filesystem::path& errFile) {
  if (args.empty()) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  posix_spawn_file_actions_addopen(&actions, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  return spawnWith(args, actions);
}

int waitExit(pid_t pid) {
  int status = 0;
  if (pid <= 0 || ::waitpid(pid, &status, 0) != pid) return -1;
  return exitCodeOf(status);
}

int waitExit(pid_t pid, std::chrono::milliseconds timeout) {
  // A pid of 0 or -1 would make waitpid and kill reach other processes.
  if (pid <= 0) return -1;
  constexpr auto kPoll = std::chrono::milliseconds(50);
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  int status = 0;
  for (;;) {
    const pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) return exitCodeOf(status);
    if (done < 0) return -1;
    if (std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(kPoll);
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, &status, 0);
  return kWaitTimedOut;
}

ProgramRun runProgram(const std::vector<std::string>& args, const std::filesystem::path& dir,
                      std::chrono::milliseconds timeout) {
  ProgramRun run;
  run.rc = waitExit(spawn(args, dir / "program.out", dir / "program.err"), timeout);
  run.out = readFileText(dir / "program.out");
  run.err = readFileText(dir / "program.err");
  return run;
}

std::string readFileText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

int unusedLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  return ntohs(addr.sin_port);
}

}  // namespace hvfp::test
