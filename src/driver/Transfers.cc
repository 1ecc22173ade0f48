#include "driver/Transfers.h"

namespace hvfp::driver {
namespace {

constexpr size_t kMaxPoints = 32;

uint64_t bytesOf(const std::shared_ptr<Progress>& progress) {
  if (!progress) return 0;
  const int64_t done = progress->completedUnitCount();
  return done > 0 ? static_cast<uint64_t>(done) : 0;
}

}  // namespace

Transfers::Id Transfers::begin(std::string name, Direction direction) {
  MutexLock lock(mutex_);
  const Id id = ++next_;
  Running r{std::move(name), direction, nullptr, {}};
  r.points.push_back(Point{Clock::now(), 0});
  running_.emplace(id, std::move(r));
  return id;
}

void Transfers::attach(Id id, std::shared_ptr<Progress> progress) {
  MutexLock lock(mutex_);
  if (auto it = running_.find(id); it != running_.end()) it->second.progress = std::move(progress);
}

void Transfers::end(Id id) {
  std::shared_ptr<Progress> last;  // released after the lock
  MutexLock lock(mutex_);
  if (auto it = running_.find(id); it != running_.end()) {
    last = std::move(it->second.progress);
    running_.erase(it);
  }
}

void Transfers::record(Running& r, Clock::time_point now) {
  r.points.push_back(Point{now, bytesOf(r.progress)});
  // Keep one point at or beyond the window's start, so the rate spans it.
  while (r.points.size() > 2 && now - r.points[1].at >= kRateWindow) r.points.pop_front();
  // Many status readers at once must not grow the list without bound.
  if (r.points.size() > kMaxPoints) r.points.erase(r.points.begin() + 1);
}

void Transfers::sample(Clock::time_point now) {
  MutexLock lock(mutex_);
  for (auto& [id, r] : running_) record(r, now);
}

std::vector<TransferStatus> Transfers::snapshot(Clock::time_point now) {
  MutexLock lock(mutex_);
  std::vector<TransferStatus> out;
  out.reserve(running_.size());
  for (auto& [id, r] : running_) {
    record(r, now);
    TransferStatus s{r.name, r.direction, r.points.back().bytes, std::nullopt, 0};
    if (r.progress && r.progress->totalUnitCount() >= 0)
      s.total = static_cast<uint64_t>(r.progress->totalUnitCount());
    const Point& from = r.points.front();
    const auto span = std::chrono::duration<double>(now - from.at).count();
    if (span > 0 && s.done > from.bytes)
      s.rate = static_cast<uint64_t>(static_cast<double>(s.done - from.bytes) / span);
    out.push_back(std::move(s));
  }
  return out;
}

}  // namespace hvfp::driver
