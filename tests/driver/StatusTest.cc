// What a folder reports to `halvofp status`, without a kernel: transfers
// running through the provider's progress objects, uploads waiting or
// failing, the cache, and the socket that carries the report.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "driver/FakeCloud.h"
#include "driver/Folder.h"
#include "driver/MountFixture.h"
#include "driver/StatusServer.h"

namespace hvfp::driver::test {
namespace {

using State = PendingStatus::State;

class NoKernel final : public Invalidator {
 public:
  void invalidate(std::vector<Invalidation>) override {}
};

class FolderStatusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(root);
    fs::create_directories(cache / "tmp");
    docs = cloud->remoteAddMount("Docs");
    big = cloud->remoteAddFile(docs, "big.bin", std::string(64000, 'b'));
    folder =
        std::make_unique<Folder>(*cloud, nullptr, kernel, FolderOptions{cache.string(), kLimit});
  }
  void TearDown() override {
    cloud->holdFetches(false);
    cloud->holdUploads(false);
    if (reader.joinable()) reader.join();
    folder.reset();
    cloud.reset();
    fs::remove_all(root);
  }
  Ino docsIno() { return folder->lookup(kRootIno, "Docs")->ino; }
  // A new file written and closed, as a program would.
  void write(const std::string& name, size_t size) {
    auto made = folder->create(docsIno(), name, O_RDWR);
    ASSERT_TRUE(made) << made.failure().message;
    const std::string bytes(size, name[0]);
    ASSERT_EQ(::pwrite(made->file->fd, bytes.data(), size, 0), ssize_t(size));
    folder->written(*made->file, 0, size);
    ASSERT_TRUE(folder->flush(*made->file));
    folder->release(made->file);
  }

  static constexpr uint64_t kLimit = 5 << 20;
  // Longer than a socket address holds: the server must still listen there.
  fs::path root = fs::temp_directory_path() /
                  ("folder-status-" + std::to_string(::getpid()) + "-" + std::string(80, 'x'));
  fs::path cache = root / "cache";
  // Fetches land in the cache folder, where copies count against the limit.
  std::unique_ptr<FakeCloud> cloud = std::make_unique<FakeCloud>(cache / "tmp");
  NoKernel kernel;
  std::unique_ptr<Folder> folder;
  std::string docs, big;
  std::thread reader;
};

constexpr auto byName = [](const auto& a, const auto& b) { return a.name < b.name; };

TEST_F(FolderStatusTest, ShowsTransfersInFlightUploadsWaitingAndTheCache) {
  const std::time_t started = std::time(nullptr);
  cloud->failUploadsOf("failed.txt");
  cloud->holdUploads(true);
  cloud->holdFetches(true);
  write("failed.txt", 1000);
  write("new.txt", 2000);
  reader = std::thread([&] {
    auto found = folder->lookup(docsIno(), "big.bin");
    ASSERT_TRUE(found);
    auto opened = folder->open(found->ino, O_RDONLY);
    ASSERT_TRUE(opened) << opened.failure().message;
    folder->release(opened->file);
  });

  // Both transfers held halfway, one upload failing over and over.
  const std::vector<TransferStatus> moving = {
      {"Docs/big.bin", Direction::Download, 32000, 64000, 0},
      {"Docs/new.txt", Direction::Upload, 1000, 2000, 0},
  };
  FolderStatus s;
  ASSERT_TRUE(eventually([&] {
    s = folder->status();
    std::sort(s.transfers.begin(), s.transfers.end(), byName);
    std::sort(s.pending.begin(), s.pending.end(), byName);
    return s.transfers.size() == 2 && s.transfers[0].done == 32000 && s.transfers[1].done == 1000 &&
           s.pending.size() == 2 && s.pending[0].state == State::Failed;
  }));
  for (size_t i = 0; i < moving.size(); ++i) {
    SCOPED_TRACE(moving[i].name);
    EXPECT_EQ(s.transfers[i].name, moving[i].name);
    EXPECT_EQ(s.transfers[i].direction, moving[i].direction);
    EXPECT_EQ(s.transfers[i].total, moving[i].total);
  }
  const PendingStatus& failed = s.pending[0];
  EXPECT_EQ(failed.name, "Docs/failed.txt");
  EXPECT_EQ(failed.size, 1000u);
  EXPECT_GE(failed.failures, 1u);
  // After the failure, and no further off than the longest pause.
  ASSERT_TRUE(failed.nextAttempt);
  EXPECT_GE(*failed.nextAttempt, started);
  EXPECT_LE(*failed.nextAttempt, std::time(nullptr) + 61);
  EXPECT_EQ(failed.error, "error 40309 \"no room\" (NSCocoaErrorDomain 5120)");
  EXPECT_EQ(s.pending[1],
            (PendingStatus{"Docs/new.txt", 2000, State::Sending, 0, std::nullopt, std::nullopt}));
  EXPECT_EQ(s.cache, (CacheStatus{0, kLimit, 0}));

  // Once they end: nothing moves, the fetched copy and the sent file are
  // held as copies, and only the failing upload waits.
  cloud->holdFetches(false);
  cloud->holdUploads(false);
  reader.join();
  ASSERT_TRUE(eventually([&] {
    s = folder->status();
    return s.transfers.empty() && s.pending.size() == 1 && s.cache.copies == 2;
  })) << statusJson(Status{"", "", std::nullopt, 0, s});
  EXPECT_EQ(s.pending[0].name, "Docs/failed.txt");
  EXPECT_EQ(s.cache, (CacheStatus{64000 + 2000, kLimit, 2}));
}

TEST_F(FolderStatusTest, TheSocketCarriesTheReportAndBelongsToOneMount) {
  const std::string path = (cache / "status.sock").string();
  ASSERT_GT(path.size(), sizeof(sockaddr_un::sun_path));
  // What a killed mount leaves: a socket file nobody listens on.
  {
    const int dir = ::open(cache.c_str(), O_PATH | O_CLOEXEC);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const std::string near = "/proc/self/fd/" + std::to_string(dir) + "/status.sock";
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    near.copy(a.sun_path, near.size());
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0) << std::strerror(errno);
    ::close(fd);
    ::close(dir);
  }
  ASSERT_FALSE(askStatus(path, std::chrono::seconds(2)));

  cloud->failUploadsOf("waiting.txt");
  write("waiting.txt", 10);
  Status made{"/mnt/halvo", "halvo", "http://127.0.0.1:24753", 42, {}};
  auto server = StatusServer::start(
      path,
      [&] {
        Status s = made;
        s.folder = folder->status();
        return statusJson(s);
      },
      [&] { folder->sampleTransfers(); });
  ASSERT_TRUE(server) << server.failure().message;
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  auto text = askStatus(path, std::chrono::seconds(10));
  ASSERT_TRUE(text) << text.failure().message;
  auto read = readStatus(*text);
  ASSERT_TRUE(read) << *text;
  EXPECT_EQ(read->mountpoint, "/mnt/halvo");
  EXPECT_EQ(read->host, "http://127.0.0.1:24753");
  EXPECT_EQ(read->pid, 42);
  ASSERT_EQ(read->folder.pending.size(), 1u) << *text;
  EXPECT_EQ(read->folder.pending[0].name, "Docs/waiting.txt");
  EXPECT_EQ(read->folder.pending[0].size, 10u);
  EXPECT_EQ(read->folder.cache.limit, kLimit);

  // A second mount of the domain leaves the live one alone.
  auto second = StatusServer::start(
      path, [] { return std::string("{}"); }, nullptr);
  EXPECT_FALSE(second);
  EXPECT_TRUE(askStatus(path, std::chrono::seconds(10)));
  server->reset();
  EXPECT_FALSE(fs::exists(path));
}

TEST(StatusText, ReadsBackWhatItWroteAndRefusesWhatIsNotAReport) {
  Status s{"/home/me/Halvo \"drive\"", "halvo", std::nullopt, 7, {}};
  s.folder.transfers = {{"Docs/caf\xC3\xA9/a\xFF\xFE.bin", Direction::Upload, 5, std::nullopt, 9},
                        {"Docs/b\n.txt", Direction::Download, 0, 100, 0}};
  s.folder.pending = {{"Docs/x.txt", 3, State::Failed, 4, 1700000000, "error 1 \"a/b\""},
                      {"Docs/y.txt", 0, State::Waiting, 0, std::nullopt, std::nullopt}};
  s.folder.cache = {1, uint64_t{10} << 30, 1};
  auto back = readStatus(statusJson(s));
  ASSERT_TRUE(back) << statusJson(s);
  EXPECT_EQ(back->mountpoint, s.mountpoint);
  EXPECT_EQ(back->host, std::nullopt);
  EXPECT_EQ(back->pid, 7);
  // Bytes that are not UTF-8 come back as U+FFFD, each.
  EXPECT_EQ(back->folder.transfers[0].name, "Docs/caf\xC3\xA9/a\xEF\xBF\xBD\xEF\xBF\xBD.bin");
  EXPECT_EQ(back->folder.transfers[0].total, std::nullopt);
  EXPECT_EQ(back->folder.transfers[0].rate, 9u);
  EXPECT_EQ(back->folder.transfers[1].name, "Docs/b\n.txt");
  EXPECT_EQ(back->folder.transfers[1].direction, Direction::Download);
  EXPECT_EQ(back->folder.pending, s.folder.pending);
  EXPECT_EQ(back->folder.cache, s.folder.cache);

  for (const char* bad : {"", "not json", "[]", "{}", R"({"mountpoint":5})", "{\"mountpoint\":"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(readStatus(bad));
  }
}

TEST(StatusText, RateIsWhatMovedOverTheLastSeconds) {
  Transfers transfers;
  const auto start = Transfers::Clock::now();
  const auto id = transfers.begin("a", Direction::Download);
  auto progress = Progress::make(100000);
  transfers.attach(id, progress);
  using std::chrono::seconds;
  progress->setCompletedUnitCount(1000);
  transfers.sample(start + seconds(1));
  progress->setCompletedUnitCount(4000);
  transfers.sample(start + seconds(7));
  progress->setCompletedUnitCount(7000);
  // From the newest point at least five seconds old (1 s, 1000 bytes).
  auto now = transfers.snapshot(start + seconds(10));
  ASSERT_EQ(now.size(), 1u);
  EXPECT_EQ(now[0].done, 7000u);
  EXPECT_EQ(now[0].total, 100000u);
  EXPECT_EQ(now[0].rate, 6000u / 9);
  // Stalled since: the rate falls to nothing once the window passed.
  EXPECT_EQ(transfers.snapshot(start + seconds(30))[0].rate, 0u);
  transfers.end(id);
  EXPECT_TRUE(transfers.snapshot().empty());
}

}  // namespace
}  // namespace hvfp::driver::test
