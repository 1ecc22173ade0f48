#include "Faults.h"

#include <algorithm>
#include <array>

namespace hvfp::hostd {

namespace {
constexpr std::array<std::pair<FaultKind, std::string_view>, 10> kNames{{
    {FaultKind::Status, "status"},
    {FaultKind::Body, "body"},
    {FaultKind::NotJson, "notjson"},
    {FaultKind::Delay, "delay"},
    {FaultKind::Drop, "drop"},
    {FaultKind::Expect409, "expect"},
    {FaultKind::Done202, "complete"},
    {FaultKind::Reset, "reset"},
    {FaultKind::Cut, "cut"},
    {FaultKind::Slow, "slow"},
}};
// A ctl typo must not arm millions of faults.
constexpr int kMaxCount = 10000;
}  // namespace

std::optional<FaultKind> faultKindFromName(std::string_view name) {
  for (auto& [kind, n] : kNames)
    if (n == name) return kind;
  return std::nullopt;
}

std::string_view faultKindName(FaultKind kind) {
  for (auto& [k, n] : kNames)
    if (k == kind) return n;
  return "?";
}

BodyShape BodyShape::of(const Fault& fault) {
  BodyShape s;
  if (fault.kind == FaultKind::Cut) s.cutAfter = fault.after;
  if (fault.kind == FaultKind::Slow) {
    s.step = std::max<size_t>(fault.chunk, 1);
    s.pauseMs = fault.delayMs;
  }
  return s;
}

void FaultTable::arm(const std::string& target, const Fault& fault, int count) {
  MutexLock lock(mutex_);
  auto& armed = armed_[target];
  if (count < 0) {
    armed.always = fault;
    return;
  }
  for (int i = 0; i < std::min(count, kMaxCount); ++i) armed.next.push_back(fault);
  if (armed.next.empty() && !armed.always) armed_.erase(target);
}

std::optional<Fault> FaultTable::take(std::string_view target) {
  MutexLock lock(mutex_);
  auto it = armed_.find(target);
  if (it == armed_.end()) return std::nullopt;
  auto& armed = it->second;
  if (armed.next.empty()) return armed.always;
  Fault f = std::move(armed.next.front());
  armed.next.pop_front();
  if (armed.next.empty() && !armed.always) armed_.erase(it);
  return f;
}

void FaultTable::clear() {
  MutexLock lock(mutex_);
  armed_.clear();
}

std::vector<std::pair<std::string, int>> FaultTable::pending() {
  MutexLock lock(mutex_);
  std::vector<std::pair<std::string, int>> out;
  for (auto& [k, v] : armed_) out.emplace_back(k, v.always ? -1 : static_cast<int>(v.next.size()));
  return out;
}

}  // namespace hvfp::hostd
