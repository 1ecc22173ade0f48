#include "Faults.h"

#include <array>

namespace hvfp::hostd {

namespace {
constexpr std::array<std::pair<FaultKind, std::string_view>, 8> kNames{{
    {FaultKind::Status, "status"},
    {FaultKind::Body, "body"},
    {FaultKind::NotJson, "notjson"},
    {FaultKind::Delay, "delay"},
    {FaultKind::Drop, "drop"},
    {FaultKind::Expect409, "expect"},
    {FaultKind::Done202, "complete"},
    {FaultKind::Reset, "reset"},
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

void FaultTable::arm(const std::string& target, const Fault& fault, int count) {
  std::lock_guard lock(mutex_);
  auto& queue = armed_[target];
  for (int i = 0; i < std::min(count, kMaxCount); ++i) queue.push_back(fault);
}

std::optional<Fault> FaultTable::take(std::string_view target) {
  std::lock_guard lock(mutex_);
  auto it = armed_.find(target);
  if (it == armed_.end() || it->second.empty()) return std::nullopt;
  Fault f = it->second.front();
  it->second.pop_front();
  if (it->second.empty()) armed_.erase(it);
  return f;
}

void FaultTable::clear() {
  std::lock_guard lock(mutex_);
  armed_.clear();
}

std::vector<std::pair<std::string, int>> FaultTable::pending() {
  std::lock_guard lock(mutex_);
  std::vector<std::pair<std::string, int>> out;
  for (auto& [k, v] : armed_) out.emplace_back(k, static_cast<int>(v.size()));
  return out;
}

}  // namespace hvfp::hostd
