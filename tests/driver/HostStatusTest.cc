// `halvofp status` against a real mount of halvo-hostd: what a user sees of
// a slow download and an upload the host refuses, and which folders count
// as running mounts after a crash, a restart and an unmount.
#include <sys/stat.h>

#include "digest/NSDataExpand.h"
#include "driver/HostFolder.h"
#include "driver/Status.h"

namespace hvfp::driver::test {
namespace {

using HostStatus = HostFolder;

Shell status(const std::string& args) { return sh(std::string(HALVOFP_BIN) + " status " + args); }

bool isSocket(const fs::path& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

TEST_F(HostStatus, ShowsTransfersAndRefusedUploadsOfTheMountHoldingDir) {
  startMount({"--cache-size", "64M"});
  EXPECT_TRUE(isSocket(cache() / "status.sock"));
  const size_t size = 1 << 20;
  ASSERT_EQ(ctl({"force-uris", "1"}), 0);  // downloads come through the download server
  ASSERT_EQ(ctl({"add-file", "--mount", "1", "--name", "big.bin", "--size", std::to_string(size),
                 "--seed", "5"}),
            0);
  ASSERT_EQ(ctl({"fault", "--target", "blob", "--kind", "slow", "--chunk", "16384", "--delay",
                 "100", "--count", "-1"}),
            0);
  ASSERT_EQ(ctl({"fault", "--target", "create", "--kind", "status", "--code", "40309", "--msg",
                 "no room", "--count", "-1"}),
            0);
  writeAll(mnt() / "Docs" / "waiting.txt", std::string(5000, 'w'));
  ASSERT_TRUE(eventually([&] { return fs::exists(mnt() / "Docs" / "big.bin"); }));
  std::string read;
  std::thread reader([&] { read = readAll(mnt() / "Docs" / "big.bin"); });

  Status s;
  const PendingStatus* waiting = nullptr;
  const TransferStatus* fetching = nullptr;
  std::string text;
  EXPECT_TRUE(eventually([&] {
    Shell shown = status(quoted((mnt() / "Docs").string()) + " --json");
    text = shown.out;
    auto parsed = readStatus(shown.out);
    if (shown.rc != 0 || !parsed) return false;
    s = *parsed;
    waiting = nullptr;
    fetching = nullptr;
    for (const auto& p : s.folder.pending)
      if (p.name == "Docs/waiting.txt" && p.state == PendingStatus::State::Failed) waiting = &p;
    for (const auto& t : s.folder.transfers)
      if (t.name == "Docs/big.bin" && t.done > 0) fetching = &t;
    return waiting && fetching;
  })) << text;
  EXPECT_EQ(s.mountpoint, mnt().string());
  EXPECT_EQ(s.domain, kDomain);
  EXPECT_EQ(s.pid, mount);
  EXPECT_EQ(s.host, "http://127.0.0.1:" + std::to_string(queryPort));
  EXPECT_EQ(s.folder.cache.limit, uint64_t{64} << 20);
  if (waiting) {
    EXPECT_EQ(waiting->size, 5000u);
    EXPECT_GE(waiting->failures, 1u);
    EXPECT_TRUE(waiting->nextAttempt);
    EXPECT_EQ(waiting->error, "error 40309 \"no room\" (NSCocoaErrorDomain 5120)");
  }
  if (fetching) {
    EXPECT_EQ(fetching->direction, Direction::Download);
    EXPECT_EQ(fetching->total, size);
    EXPECT_LE(fetching->done, size);
  }

  // For people: every mount, a line per transfer and per waiting upload.
  Shell plain = status("");
  EXPECT_EQ(plain.rc, 0);
  const std::vector<std::string> parts = {mnt().string() + ": domain " + kDomain,
                                          "cache: ",
                                          " of 64 MiB",
                                          "Docs/waiting.txt",
                                          "4.9 KiB",
                                          "failed",
                                          "error 40309 \"no room\""};
  for (const auto& part : parts)
    EXPECT_NE(plain.out.find(part), std::string::npos) << part << " in\n" << plain.out;

  Shell outside = status("/tmp");
  EXPECT_EQ(outside.rc, 1);
  EXPECT_EQ(outside.out, "halvofp: /tmp is not in a running halvofp mount\n");

  ASSERT_EQ(ctl({"clear-faults"}), 0);
  reader.join();
  EXPECT_EQ(read.size(), size);
}

TEST_F(HostStatus, OnlyLiveMountsAnswer) {
  Shell none = status("");
  EXPECT_EQ(none.rc, 1);
  EXPECT_EQ(none.out, "halvofp: no running mount\n");

  startMount();
  killMount();
  // The socket a crash left does not count, and the next mount takes its place.
  EXPECT_TRUE(isSocket(cache() / "status.sock"));
  EXPECT_EQ(status("").out, "halvofp: no running mount\n");
  startMount();
  Shell shown = status(quoted(mnt().string()) + " --json");
  ASSERT_EQ(shown.rc, 0) << shown.out;
  auto parsed = readStatus(shown.out);
  ASSERT_TRUE(parsed) << shown.out;
  EXPECT_EQ(parsed->pid, mount);
  stopMount();
  EXPECT_FALSE(fs::exists(cache() / "status.sock"));
  EXPECT_EQ(status(quoted(mnt().string())).rc, 1);
}

}  // namespace
}  // namespace hvfp::driver::test
