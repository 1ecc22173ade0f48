#include "driver/Uploads.h"

#include <algorithm>

#include "platform/Log.h"

namespace hvfp::driver {

using Clock = std::chrono::steady_clock;

Uploads::Uploads(Attempt attempt) : attempt_(std::move(attempt)) {
  worker_ = std::thread([this] { run(); });
}

Uploads::~Uploads() {
  {
    MutexLock lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
  }
  worker_.join();
  gate_->close();
}

std::chrono::milliseconds Uploads::pauseAfter(int failures) {
  const int doublings = std::clamp(failures - 1, 0, 6);
  return std::min(std::chrono::milliseconds(1000) * (1 << doublings),
                  std::chrono::milliseconds(60000));
}

void Uploads::schedule(Ino ino, uint64_t generation) {
  MutexLock lock(mutex_);
  auto [it, added] = jobs_.try_emplace(ino);
  Job& job = it->second;
  // A file just closed is often renamed or removed at once (temporary files
  // of rsync, editors, databases): a short pause lets that happen before
  // the cloud sees it under its passing name.
  if (added) job.due = Clock::now() + kSettle;
  job.wanted = std::max(job.wanted, generation);
  changed_.notify_all();
}

bool Uploads::waitFor(Ino ino, uint64_t generation) {
  MutexLock lock(mutex_);
  for (;;) {
    auto it = jobs_.find(ino);
    if (it == jobs_.end() || it->second.sent >= generation) return true;
    if (it->second.failedAt >= generation && !it->second.running) return false;
    if (!it->second.failures && it->second.due != Clock::time_point{}) {
      it->second.due = {};  // someone waits: no pause
      changed_.notify_all();
    }
    changed_.wait(lock);
  }
}

void Uploads::whileIdle(Ino ino, const std::function<bool(bool due)>& fn) {
  MutexLock lock(mutex_);
  for (;;) {
    auto it = jobs_.find(ino);
    if (it == jobs_.end()) {
      fn(false);
      return;
    }
    if (!it->second.running) {
      if (fn(it->second.wanted > it->second.sent)) {
        jobs_.erase(ino);
        changed_.notify_all();
      }
      return;
    }
    changed_.wait(lock);
  }
}

void Uploads::forget(Ino ino) {
  MutexLock lock(mutex_);
  auto it = jobs_.find(ino);
  if (it == jobs_.end()) return;
  it->second.wanted = it->second.sent;  // a running attempt still reports
  if (!it->second.running) jobs_.erase(it);
  changed_.notify_all();
}

bool Uploads::drain(std::chrono::milliseconds bound) {
  const auto until = Clock::now() + bound;
  MutexLock lock(mutex_);
  for (;;) {
    bool left = std::any_of(jobs_.begin(), jobs_.end(), [](auto& j) {
      return j.second.running || j.second.wanted > j.second.sent;
    });
    if (!left) return true;
    if (Clock::now() >= until) return false;
    changed_.wait_until(lock, until);
  }
}

std::vector<Uploads::Waiting> Uploads::waiting() {
  const auto steadyNow = Clock::now();
  const auto wallNow = std::chrono::system_clock::now();
  MutexLock lock(mutex_);
  std::vector<Waiting> out;
  for (const auto& [ino, job] : jobs_) {
    if (!job.running && job.wanted <= job.sent) continue;
    Waiting w{ino, job.running, job.failures, std::nullopt, job.error};
    if (job.failures && !job.running)
      w.next = wallNow + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                             std::max(job.due, steadyNow) - steadyNow);
    out.push_back(std::move(w));
  }
  std::sort(out.begin(), out.end(),
            [](const Waiting& a, const Waiting& b) { return a.ino < b.ino; });
  return out;
}

void Uploads::run() {
  MutexLock lock(mutex_);
  while (!stopping_) {
    auto now = Clock::now();
    auto next = now + std::chrono::hours(1);
    Ino start = 0;
    for (auto& [ino, job] : jobs_) {
      if (job.running || job.wanted <= job.sent) continue;
      if (job.due <= now) {
        start = ino;
        break;
      }
      next = std::min(next, job.due);
    }
    if (!start) {
      changed_.wait_until(lock, next);
      continue;
    }
    jobs_[start].running = true;
    jobs_[start].started = jobs_[start].wanted;
    lock.unlock();
    attempt_(start, [this, start, gate = gate_](uint64_t generation, Result<void> outcome) {
      gate->pass([&] { finished(start, generation, outcome); });
    });
    lock.lock();
  }
}

void Uploads::finished(Ino ino, uint64_t generation, const Result<void>& outcome) {
  MutexLock lock(mutex_);
  Job& job = jobs_[ino];
  job.running = false;
  if (generation == kNothingLeft) generation = job.started;
  if (outcome) {
    job.sent = std::max(job.sent, generation);
    job.failures = 0;
    job.due = {};
    job.error.clear();
  } else {
    job.failedAt = std::max(job.failedAt, generation);
    job.error = outcome.failure().message;
    ++job.failures;
    job.due = Clock::now() + pauseAfter(job.failures);
    log("driver: upload of inode {} failed ({} in a row); trying again in {} ms", ino, job.failures,
        pauseAfter(job.failures).count());
  }
  if (job.wanted <= job.sent) jobs_.erase(ino);
  changed_.notify_all();
}

}  // namespace hvfp::driver
