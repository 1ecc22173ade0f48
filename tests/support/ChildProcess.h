// Programs the tests run as child processes (halvo-hostd and its ctl), and a
// free loopback port to hand to one.
//
// spawn() starts args[0] as given (no PATH search) with this process's
// environment; the child's stdout and stderr are appended to `logFile`, so
// a failing test can point at what the child said. Both functions only touch
// the child they are given: call them from any thread, but wait for a given
// child from one thread only.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace hvfp::test {

// The child's pid, or -1 when it could not be started.
pid_t spawn(const std::vector<std::string>& args, const std::filesystem::path& logFile);

// As above, with stdout and stderr each to its own file (truncated first),
// for a program whose output is checked.
pid_t spawn(const std::vector<std::string>& args, const std::filesystem::path& outFile,
            const std::filesystem::path& errFile);

// The child's exit code; -1 when it was ended by a signal, or `pid` is not a
// child of ours. Blocks until the child ends.
int waitExit(pid_t pid);

// What the bounded waitExit returns when the child outlived the timeout.
inline constexpr int kWaitTimedOut = -2;

// As above, but a child still running after `timeout` is killed and reaped,
// so a hung program fails its test instead of the whole run.
int waitExit(pid_t pid, std::chrono::milliseconds timeout);

// What a program that ran to its end said, and its exit code (as waitExit's).
struct ProgramRun {
  int rc = -1;
  std::string out, err;
};

// Runs `args` to its end, its output through files in `dir`; a program still
// running after `timeout` is killed (rc kWaitTimedOut).
ProgramRun runProgram(const std::vector<std::string>& args, const std::filesystem::path& dir,
                      std::chrono::milliseconds timeout = std::chrono::minutes(2));
// The whole of a file; empty when it cannot be read.
std::string readFileText(const std::filesystem::path& path);

// A loopback port that nothing listened on a moment ago: free for a child to
// bind, or a port where a connection is refused.
int unusedLoopbackPort();

}  // namespace hvfp::test
