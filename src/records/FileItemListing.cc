#include "records/FileItemListing.h"

namespace hvfp {

// simdjson's streaming parser is chosen at compile time, unlike its DOM
// parser which dispatches at run time, so the reader is built once per instruction set and the
// CPU picks. Both copies see the same inline library code; the wider copies's
// out-of-line instances could in theory be shared with the fallback copy,
// which matters only on CPUs older than AVX2 or without AVX-512.
namespace listing_icelake {
std::optional<FileItemListing> readFileItemListing(std::string text);
}
namespace listing_haswell {
std::optional<FileItemListing> readFileItemListing(std::string text);
}
namespace listing_fallback {
std::optional<FileItemListing> readFileItemListing(std::string text);
}

namespace {
bool cpuHasIcelake() {
  static const bool has = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
                          __builtin_cpu_supports("avx512cd") &&
                          __builtin_cpu_supports("avx512bw") &&
                          __builtin_cpu_supports("avx512vl") &&
                          __builtin_cpu_supports("avx512vbmi2") && __builtin_cpu_supports("avx2") &&
                          __builtin_cpu_supports("bmi") && __builtin_cpu_supports("pclmul");
  return has;
}
bool cpuHasHaswell() {
  static const bool has = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") &&
                          __builtin_cpu_supports("bmi2") && __builtin_cpu_supports("pclmul") &&
                          __builtin_cpu_supports("popcnt");
  return has;
}
}  // namespace

std::optional<FileItemListing> readFileItemListing(std::string text) {
  if (cpuHasIcelake()) return listing_icelake::readFileItemListing(std::move(text));
  if (cpuHasHaswell()) return listing_haswell::readFileItemListing(std::move(text));
  return listing_fallback::readFileItemListing(std::move(text));
}

}  // namespace hvfp
