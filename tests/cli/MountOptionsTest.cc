// What `halvofp mount --cache-size` accepts, and the cache size without it.
#include <gtest/gtest.h>

#include "cli/MountCommand.h"

namespace hvfp::cli {
namespace {

TEST(MountOptions, CacheSizesWithAndWithoutUnits) {
  const std::vector<std::pair<std::string, std::optional<uint64_t>>> cases = {
      {"1048576", 1048576},
      {"512M", uint64_t{512} << 20},
      {"512m", uint64_t{512} << 20},
      {"2G", uint64_t{2} << 30},
      {"2GB", uint64_t{2} << 30},
      {"2GiB", uint64_t{2} << 30},
      {"64K", uint64_t{64} << 10},
      {"1T", uint64_t{1} << 40},
      {"0", 0},
      {"", std::nullopt},
      {"M", std::nullopt},
      {"-1G", std::nullopt},
      {"1.5G", std::nullopt},
      {"2X", std::nullopt},
      {"2GG", std::nullopt},
      {"B", std::nullopt},
      {"99999999999T", std::nullopt},
  };
  for (const auto& [text, bytes] : cases) EXPECT_EQ(parseSize(text), bytes) << text;
}

TEST(MountOptions, DefaultCacheIsAQuarterOfTheFileSystemUpToTenGiB) {
  EXPECT_EQ(defaultCacheSize(uint64_t{8} << 30), uint64_t{2} << 30);
  EXPECT_EQ(defaultCacheSize(uint64_t{40} << 30), uint64_t{10} << 30);
  EXPECT_EQ(defaultCacheSize(uint64_t{1} << 40), uint64_t{10} << 30);
}

}  // namespace
}  // namespace hvfp::cli
