// Transfers: the fetches and uploads the folder has running, for a status
// report. Each is named for people (its path in the folder) and read
// through the progress object the framework call returned, whose unit
// counts are bytes.
//
// A transfer is begun before its framework call is made and ended by the
// call's completion handler, which may run before the call returns; the
// progress object is attached once the call returned, unless it ended
// already. The rate is what moved over the last few seconds, from points
// sample() records; without recent points it is the average since the
// transfer began.
//
// Ownership: shared (std::shared_ptr) by the folder and the completion
// handlers of its calls, which may outlive the folder; it keeps the progress
// objects it was given until the transfer ends.
// Threads: any thread; every call takes the lock briefly and never calls
// out while holding it.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Progress.h"
#include "platform/ThreadAnnotations.h"

namespace hvfp::driver {

enum class Direction { Download, Upload };

struct TransferStatus {
  std::string name;
  Direction direction = Direction::Download;
  uint64_t done = 0;
  std::optional<uint64_t> total;  // none until the transfer knows it
  uint64_t rate = 0;              // bytes per second, lately
};

class Transfers {
 public:
  using Id = uint64_t;
  using Clock = std::chrono::steady_clock;
  // How far back the rate looks.
  static constexpr std::chrono::seconds kRateWindow{5};

  Id begin(std::string name, Direction direction) EXCLUDES(mutex_);
  void attach(Id id, std::shared_ptr<Progress> progress) EXCLUDES(mutex_);
  void end(Id id) EXCLUDES(mutex_);
  // Records where each transfer stands now, for the rate.
  void sample(Clock::time_point now = Clock::now()) EXCLUDES(mutex_);
  // Every running transfer, oldest first; samples as it reads.
  std::vector<TransferStatus> snapshot(Clock::time_point now = Clock::now()) EXCLUDES(mutex_);

 private:
  struct Point {
    Clock::time_point at;
    uint64_t bytes = 0;
  };
  struct Running {
    std::string name;
    Direction direction;
    std::shared_ptr<Progress> progress;
    std::deque<Point> points;  // the first is the oldest still needed
  };
  static void record(Running& r, Clock::time_point now);

  Mutex mutex_;
  Id next_ GUARDED_BY(mutex_) = 0;
  std::map<Id, Running> running_ GUARDED_BY(mutex_);
};

}  // namespace hvfp::driver
