// What a listing of a large folder leaves behind: the replica keeps only
// what it needs of each item, never the provider's objects.
#include <gtest/gtest.h>
#include <malloc.h>
#include <stdlib.h>

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer's count of bytes the program holds (its redzones and
// quarantine not counted).
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

#include <cstdio>
#include <filesystem>

#include "driver/Replica.h"
#include "extension/FileProviderExtension.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "platform/http/ReplyBuffers.h"
#include "support/LoopbackServer.h"

namespace hvfp::driver::test {
namespace {

size_t allocatedBytes() {
#if defined(__SANITIZE_ADDRESS__)
  return __sanitizer_get_current_allocated_bytes();
#else
  return mallinfo2().uordblks;
#endif
}

std::string hex(uint64_t value, size_t width) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out(width, '0');
  for (size_t i = width; i-- > 0; value >>= 4) out[i] = digits[value & 15];
  return out;
}

// A folder listing as the host writes it: every key of its records.
std::string bigListing(size_t count) {
  std::string out = "{\"lasttime\":7,\"list\":[";
  for (size_t i = 0; i < count; ++i) {
    std::string name = "file-" + std::to_string(i) + ".txt";
    out += (i ? "," : "");
    out += "{\"creatortime\":1700000000,\"dir\":0,\"filehash\":\"" + hex(i * 2654435761u, 40) +
           "\",\"filename\":\"" + name + "\",\"filesize\":" + std::to_string(1000 + i) +
           ",\"lastid\":0,\"lastname\":\"\",\"lasttime\":" + std::to_string(1700000000 + i) +
           ",\"lock\":0,\"lockid\":0,\"mount_id\":1,\"property\":\"\",\"root\":0,\"status\":0,"
           "\"up_hash\":\"\",\"uuidhash\":\"" +
           hex(i * 40503u + 17, 32) + "\",\"webpath\":\"" + name + "\"}";
  }
  return out + "],\"status_code\":200}";
}

class CountingInvalidator final : public Invalidator {
 public:
  void invalidate(std::vector<Invalidation>) override {}
};

// What the replica keeps grows with the entries, so a folder of 40,000 shows
// the cost per entry; the benchmark measures the mount process on 100,000.
constexpr size_t kEntries = 40000;

TEST(ReplicaMemory, LargeFolderCostsAtMostFiveTimesItsListing) {
  const std::string dir =
      (std::filesystem::temp_directory_path() / ("replica-memory-" + std::to_string(::getpid())))
          .string();
  setenv("XDG_CACHE_HOME", dir.c_str(), 1);
  setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + dir + "/no-bus").c_str(), 1);
  setLogSink(LogSink::Silent);
  // As in halvofp mount: a long-lived process keeps no parser or buffers
  // sized for its largest reply.
  ReplyBuffers::setKeeping(false);
  const std::string listing = bigListing(kEntries);
  const std::string mounts =
      R"({"list":[{"dir":1,"filename":"Big","mount_id":1,"root":1,"status":0,"uuidhash":""}],"status_code":200})";
  hvfp::test::LoopbackServer server;
  server.setHandler([&](const hvfp::test::RecordedRequest& r) {
    return hvfp::test::ScriptedReply(200, r.query.starts_with("type=links") ? mounts : listing);
  });
  HalvoProviderClient client;
  FileProviderExtension extension(client, NSFileProviderDomain{"memory", "memory"});
  client.setNPort(server.port());
  CountingInvalidator kernel;
  Replica replica(extension, kernel);
  auto big = replica.lookup(kRootIno, "Big");
  ASSERT_TRUE(big.ok());

  const size_t before = allocatedBytes();
  {
    auto children = replica.children(big->ino);
    ASSERT_TRUE(children.ok());
    ASSERT_EQ(children->size(), kEntries);
  }
  malloc_trim(0);
  const size_t after = allocatedBytes();
  const size_t kept = after > before ? after - before : 0;
  std::printf("kept %zu bytes (%.0f per entry) for a listing of %zu bytes\n", kept,
              kept / double(kEntries), listing.size());
  EXPECT_LE(kept, 5 * listing.size())
      << "kept " << kept << " bytes for a listing of " << listing.size() << " bytes";
  auto last = replica.lookup(big->ino, "file-" + std::to_string(kEntries - 1) + ".txt");
  ASSERT_TRUE(last.ok());
  EXPECT_EQ(last->size, 1000 + kEntries - 1);
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace hvfp::driver::test
