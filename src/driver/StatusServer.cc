#include "driver/StatusServer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>

namespace hvfp::driver {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kTickEvery = std::chrono::seconds(1);
constexpr auto kClientBound = std::chrono::seconds(2);
constexpr size_t kMaxDocument = size_t{64} << 20;

std::string why(int error) { return std::strerror(error); }

// Calls `use` with a socket address for `path` and returns what it returns
// (0 or an errno). A path too long for the address goes through a
// descriptor on its folder, held while `use` runs.
template <typename Use>
int atAddress(const std::string& path, Use use) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string target = path;
  int folder = -1;
  if (target.size() >= sizeof address.sun_path) {
    const std::filesystem::path p(path);
    folder = ::open(p.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return errno;
    target = "/proc/self/fd/" + std::to_string(folder) + "/" + p.filename().string();
  }
  int rc = ENAMETOOLONG;
  if (target.size() < sizeof address.sun_path) {
    std::memcpy(address.sun_path, target.data(), target.size());
    rc = use(reinterpret_cast<const sockaddr*>(&address),
             static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + target.size() + 1));
  }
  if (folder >= 0) ::close(folder);
  return rc;
}

void setTimeout(int fd, int option, std::chrono::milliseconds bound) {
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(bound.count() / 1000);
  tv.tv_usec = static_cast<suseconds_t>((bound.count() % 1000) * 1000);
  ::setsockopt(fd, SOL_SOCKET, option, &tv, sizeof tv);
}

// A connected socket, or an errno.
int connectTo(const std::string& path, std::chrono::milliseconds bound, int& fd) {
  fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  // A stuck server's full backlog must not hold the caller.
  setTimeout(fd, SO_SNDTIMEO, bound);
  setTimeout(fd, SO_RCVTIMEO, bound);
  int rc = atAddress(path, [&](const sockaddr* a, socklen_t length) {
    return ::connect(fd, a, length) == 0 ? 0 : errno;
  });
  if (rc) {
    ::close(fd);
    fd = -1;
  }
  return rc;
}

}  // namespace

Result<std::unique_ptr<StatusServer>> StatusServer::start(const std::string& path, Answer answer,
                                                          Tick tick) {
  int live = -1;
  if (connectTo(path, std::chrono::milliseconds(500), live) == 0) {
    ::close(live);
    return fail("another mount of this domain answers at " + path);
  }
  const std::string passing = path + "." + std::to_string(::getpid()) + ".new";
  ::unlink(passing.c_str());
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) return fail("no socket (" + why(errno) + ")");
  int rc = atAddress(passing, [&](const sockaddr* a, socklen_t length) {
    return ::bind(listener, a, length) == 0 ? 0 : errno;
  });
  if (rc == 0 && ::chmod(passing.c_str(), 0600) != 0) rc = errno;
  if (rc == 0 && ::listen(listener, 16) != 0) rc = errno;
  if (rc == 0 && ::rename(passing.c_str(), path.c_str()) != 0) rc = errno;
  struct stat st {};
  if (rc == 0 && ::stat(path.c_str(), &st) != 0) rc = errno;
  const int wake = rc == 0 ? ::eventfd(0, EFD_CLOEXEC) : -1;
  if (rc == 0 && wake < 0) rc = errno;
  if (rc) {
    ::unlink(passing.c_str());
    ::close(listener);
    return fail("cannot listen at " + path + " (" + why(rc) + ")");
  }
  std::unique_ptr<StatusServer> server(
      new StatusServer(path, listener, wake, st.st_ino, std::move(answer), std::move(tick)));
  server->thread_ = std::thread([s = server.get()] { s->serve(); });
  return server;
}

StatusServer::StatusServer(std::string path, int listener, int wake, ino_t inode, Answer answer,
                           Tick tick)
    : path_(std::move(path)),
      listener_(listener),
      wake_(wake),
      inode_(inode),
      answer_(std::move(answer)),
      tick_(std::move(tick)) {}

StatusServer::~StatusServer() {
  const uint64_t one = 1;
  (void)!::write(wake_, &one, sizeof one);
  if (thread_.joinable()) thread_.join();
  struct stat st {};
  if (::stat(path_.c_str(), &st) == 0 && st.st_ino == inode_) ::unlink(path_.c_str());
  ::close(listener_);
  ::close(wake_);
}

void StatusServer::serve() {
  auto ticked = Clock::now();
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(ticked + kTickEvery - Clock::now());
    pollfd fds[2] = {{wake_, POLLIN, 0}, {listener_, POLLIN, 0}};
    const int n = ::poll(fds, 2, static_cast<int>(std::max<int64_t>(left.count(), 0)));
    if (n < 0 && errno != EINTR) return;
    if (n > 0 && fds[0].revents) return;
    if (n > 0 && (fds[1].revents & POLLIN)) {
      const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client >= 0) {
        answerOne(client);
        ::close(client);
      }
    }
    if (Clock::now() - ticked >= kTickEvery) {
      ticked = Clock::now();
      if (tick_) tick_();
    }
  }
}

// One deadline for the whole answer: a client that reads a byte now and then
// must not hold the thread (and the unmount waiting to join it).
void StatusServer::answerOne(int client) {
  const int flags = ::fcntl(client, F_GETFL);
  if (flags < 0 || ::fcntl(client, F_SETFL, flags | O_NONBLOCK) != 0) return;
  const auto deadline = Clock::now() + kClientBound;
  const std::string text = answer_() + "\n";
  for (size_t sent = 0; sent < text.size();) {
    // A client gone meanwhile must not end the mount with SIGPIPE.
    const ssize_t n = ::send(client, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n == 0 || errno != EAGAIN) return;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return;
    pollfd fds[2] = {{client, POLLOUT, 0}, {wake_, POLLIN, 0}};
    const int ready = ::poll(fds, 2, static_cast<int>(left));
    if (ready < 0 && errno != EINTR) return;
    if (ready > 0 && fds[1].revents) return;  // stopping: the serve loop sees it too
  }
}

Result<std::string> askStatus(const std::string& path, std::chrono::milliseconds bound) {
  int fd = -1;
  if (int rc = connectTo(path, bound, fd)) return fail(why(rc));
  std::string out;
  char buffer[1 << 16];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int error = errno;
      ::close(fd);
      return fail(error == EAGAIN ? "no answer in time" : why(error));
    }
    if (n == 0) break;
    out.append(buffer, static_cast<size_t>(n));
    if (out.size() > kMaxDocument) {
      ::close(fd);
      return fail("the answer is too large");
    }
  }
  ::close(fd);
  return out;
}

}  // namespace hvfp::driver
