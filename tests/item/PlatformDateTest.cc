#include <gtest/gtest.h>

#include "item/PlatformDate.h"

namespace hvfp {
namespace {

TEST(ItemPlatformDate, PrintsUtcSecondsCutTowardThePast) {
  const std::vector<std::pair<double, std::string>> cases{
      {1700000000, "2023-11-14 22:13:20 +0000"}, {0, "1970-01-01 00:00:00 +0000"},
      {951782400, "2000-02-29 00:00:00 +0000"},  {253402300799, "9999-12-31 23:59:59 +0000"},
      {1.9, "1970-01-01 00:00:01 +0000"},        {-0.5, "1969-12-31 23:59:59 +0000"}};
  for (const auto& [seconds, text] : cases) EXPECT_EQ(formatPlatformDate(seconds), text);
}

}  // namespace
}  // namespace hvfp
