#include "cli/StatusCommand.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <filesystem>
#include <ostream>
#include <vector>

#include "cli/Console.h"
#include "cli/ItemFormat.h"
#include "driver/Status.h"
#include "driver/StatusServer.h"
#include "platform/fileprovider/NSFileProviderManager.h"

namespace hvfp::cli {
namespace fs = std::filesystem;
namespace {

constexpr auto kAskBound = std::chrono::seconds(3);

// The mounts whose sockets answer, one per domain folder, in name order.
std::vector<driver::Status> runningMounts() {
  std::vector<std::string> sockets;
  std::error_code ec;
  for (auto it = fs::directory_iterator(NSFileProviderManager::domainsFolder(), ec);
       !ec && it != fs::directory_iterator(); it.increment(ec)) {
    const std::string path = (it->path() / "status.sock").string();
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) sockets.push_back(path);
  }
  std::sort(sockets.begin(), sockets.end());
  std::vector<driver::Status> mounts;
  // A socket that does not answer is what a killed mount left.
  for (const auto& path : sockets)
    if (auto text = driver::askStatus(path, kAskBound))
      if (auto status = driver::readStatus(*text)) mounts.push_back(std::move(*status));
  return mounts;
}

bool holds(const std::string& mountpoint, const std::string& path) {
  if (path == mountpoint) return true;
  const std::string prefix = mountpoint.ends_with('/') ? mountpoint : mountpoint + "/";
  return path.starts_with(prefix);
}

std::string realPath(const std::string& dir) {
  std::error_code ec;
  auto real = fs::canonical(dir, ec);
  if (!ec) return real.string();
  return fs::absolute(dir, ec).lexically_normal().string();
}

std::string rateText(uint64_t rate) { return humanSize(rate) + "/s"; }

std::string attemptText(const driver::PendingStatus& p, std::time_t now) {
  using State = driver::PendingStatus::State;
  const std::string times = std::to_string(p.failures) + (p.failures == 1 ? " time" : " times");
  std::string text = driver::stateName(p.state);
  if (p.state == State::Failed) {
    text += " " + times;
    if (p.nextAttempt) {
      const int64_t in = *p.nextAttempt - static_cast<int64_t>(now);
      text += in > 0 ? ", next attempt in " + std::to_string(in) + " s" : ", next attempt now";
    }
  } else if (p.failures) {
    text += " (failed " + times + " before)";
  }
  if (p.error) text += ": " + printable(*p.error);
  return text;
}

template <size_t N>
void printRows(std::ostream& out, const std::vector<std::array<std::string, N>>& rows) {
  std::array<size_t, N> width{};
  for (const auto& row : rows)
    for (size_t c = 0; c < N; ++c) width[c] = std::max(width[c], row[c].size());
  for (const auto& row : rows) {
    std::string line = "   ";
    for (size_t c = 0; c < N; ++c) {
      line += ' ' + row[c];
      if (c + 1 < N) line += std::string(width[c] - row[c].size() + 1, ' ');
    }
    out << line << '\n';
  }
}

void printStatus(std::ostream& out, const driver::Status& s, std::time_t now) {
  const driver::FolderStatus& f = s.folder;
  out << printable(s.mountpoint) << ": domain " << printable(s.domain);
  if (s.host) out << ", host " << printable(*s.host);
  out << ", pid " << s.pid << '\n';
  out << "  cache: " << humanSize(f.cache.bytes) << " of " << humanSize(f.cache.limit) << " in "
      << f.cache.copies << (f.cache.copies == 1 ? " copy" : " copies") << '\n';
  out << "  transfers:" << (f.transfers.empty() ? " none" : "") << '\n';
  std::vector<std::array<std::string, 4>> transfers;
  for (const auto& t : f.transfers)
    transfers.push_back({driver::directionName(t.direction), printable(t.name),
                         humanSize(t.done) + " of " + (t.total ? humanSize(*t.total) : "?"),
                         rateText(t.rate)});
  printRows(out, transfers);
  out << "  pending uploads:" << (f.pending.empty() ? " none" : "") << '\n';
  std::vector<std::array<std::string, 3>> pending;
  for (const auto& p : f.pending)
    pending.push_back({printable(p.name), humanSize(p.size), attemptText(p, now)});
  printRows(out, pending);
}

}  // namespace

int status(const StatusOptions& options, std::ostream& out, std::ostream& err) {
  std::vector<driver::Status> mounts = runningMounts();
  if (options.dir) {
    auto deepest = [&](const std::string& path) {
      const driver::Status* found = nullptr;
      for (const auto& m : mounts)
        if (holds(m.mountpoint, path) && (!found || m.mountpoint.size() > found->mountpoint.size()))
          found = &m;
      return found;
    };
    // The path as written first: resolving it walks through the mount, which
    // may be the one that is stuck.
    std::error_code ec;
    const driver::Status* found =
        deepest(fs::absolute(*options.dir, ec).lexically_normal().string());
    if (!found) found = deepest(realPath(*options.dir));
    if (!found) {
      err << "halvofp: " << printable(*options.dir) << " is not in a running halvofp mount\n";
      return Exit::Failed;
    }
    mounts = {*found};
  } else if (mounts.empty()) {
    err << "halvofp: no running mount\n";
    return Exit::Failed;
  }
  const std::time_t now = std::time(nullptr);
  for (size_t i = 0; i < mounts.size(); ++i) {
    if (options.json) {
      out << driver::statusJson(mounts[i]) << '\n';
      continue;
    }
    if (i) out << '\n';
    printStatus(out, mounts[i], now);
  }
  return Exit::Done;
}

}  // namespace hvfp::cli
