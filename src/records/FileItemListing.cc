#include "records/FileItemListing.h"

namespace hvfp {

// simdjson's streaming parser is chosen at compile time, unlike its DOM
// parser which dispatches at run time, so the reader is built twice and the
// CPU picks. Both copies see the same inline library code; the AVX2 copy's
// out-of-line instances could in theory be shared with the fallback copy,
// which matters only on CPUs older than AVX2.
namespace listing_haswell {
std::optional<FileItemListing> readFileItemListing(std::string& text);
}
namespace listing_fallback {
std::optional<FileItemListing> readFileItemListing(std::string& text);
}

namespace {
bool cpuHasHaswell() {
  static const bool has = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") &&
                          __builtin_cpu_supports("bmi2") && __builtin_cpu_supports("pclmul") &&
                          __builtin_cpu_supports("popcnt");
  return has;
}
}  // namespace

std::optional<FileItemListing> readFileItemListing(std::string& text) {
  return cpuHasHaswell() ? listing_haswell::readFileItemListing(text)
                         : listing_fallback::readFileItemListing(text);
}

}  // namespace hvfp
