#include "platform/ipc/SessionBus.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>

#include "platform/Log.h"

namespace hvfp::ipc {

std::string errorText(int negativeErrno) {
  char buffer[256];
  // GNU strerror_r: strerror() shares a buffer between threads.
  return strerror_r(negativeErrno < 0 ? -negativeErrno : negativeErrno, buffer, sizeof buffer);
}

Result<BusPtr> openSessionBus() {
  sd_bus* raw = nullptr;
  int r = sd_bus_open_user(&raw);
  BusPtr bus(raw);
  if (r < 0) return fail("cannot connect to the session bus: " + errorText(r));
  const char* unique = nullptr;
  r = sd_bus_get_unique_name(bus.get(), &unique);
  if (r < 0) return fail("the session bus did not accept the connection: " + errorText(r));
  return bus;
}

Result<std::unique_ptr<BusThread>> BusThread::start(sd_bus* bus, std::string label) {
  int wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd < 0) return fail("eventfd: " + errorText(errno));
  std::unique_ptr<BusThread> self(new BusThread(bus, std::move(label), wakeFd));
  try {
    self->thread_ = std::thread([raw = self.get()] { raw->run(); });
  } catch (const std::system_error& e) {
    // The destructor closes wakeFd; there is no thread to join.
    return fail(std::string("cannot start the bus thread: ") + e.what());
  }
  return self;
}

BusThread::BusThread(sd_bus* bus, std::string label, int wakeFd)
    : bus_(bus), label_(std::move(label)), wakeFd_(wakeFd) {}

BusThread::~BusThread() {
  stopping_.store(true, std::memory_order_release);
  if (thread_.joinable()) {
    uint64_t one = 1;
    // A full counter is still readable, so a failed write leaves the thread awake anyway.
    [[maybe_unused]] ssize_t written = write(wakeFd_, &one, sizeof one);
    thread_.join();
  }
  close(wakeFd_);
}

namespace {

// sd-bus gives an absolute CLOCK_MONOTONIC deadline; ppoll wants what is left.
bool timeLeft(uint64_t deadlineUsec, timespec* left) {
  if (deadlineUsec == UINT64_MAX) return false;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  uint64_t nowUsec = uint64_t(now.tv_sec) * 1000000u + uint64_t(now.tv_nsec) / 1000u;
  uint64_t rest = deadlineUsec > nowUsec ? deadlineUsec - nowUsec : 0;
  left->tv_sec = time_t(rest / 1000000u);
  left->tv_nsec = long(rest % 1000000u) * 1000;
  return true;
}

}  // namespace

void BusThread::run() {
  while (!stopping_.load(std::memory_order_acquire)) {
    int r = sd_bus_process(bus_, nullptr);
    if (r < 0) {
      log("{}: session bus connection lost: {}", label_, errorText(r));
      return;
    }
    if (r > 0) continue;  // more may be queued; poll only when idle

    int events = sd_bus_get_events(bus_);
    if (events < 0) {
      log("{}: session bus connection lost: {}", label_, errorText(events));
      return;
    }
    uint64_t deadline = UINT64_MAX;
    sd_bus_get_timeout(bus_, &deadline);
    timespec left{};
    bool bounded = timeLeft(deadline, &left);

    pollfd fds[2] = {{sd_bus_get_fd(bus_), short(events), 0}, {wakeFd_, POLLIN, 0}};
    r = ppoll(fds, 2, bounded ? &left : nullptr, nullptr);
    if (r < 0 && errno != EINTR) {
      log("{}: waiting on the session bus failed: {}", label_, errorText(errno));
      return;
    }
  }
}

}  // namespace hvfp::ipc
