#include "records/FileItemListing.h"

namespace hvfp {

// simdjson's streaming parser is chosen at compile time, unlike its DOM
// parser which dispatches at run time, so the reader is built once per
// instruction set and the CPU picks. Each copy keeps all its code to itself
// (see FileItemListingImpl.h), so the fallback copy never runs an instruction
// the CPU lacks.
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
// Every extension a copy is built with, not only the ones that name it.
// LZCNT is left to BMI2: no CPU has the second without the first, and clang
// has no name for it here.
bool cpuHasHaswell() {
  static const bool has = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") &&
                          __builtin_cpu_supports("bmi2") && __builtin_cpu_supports("pclmul") &&
                          __builtin_cpu_supports("popcnt");
  return has;
}
bool cpuHasIcelake() {
  static const bool has =
      cpuHasHaswell() && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
      __builtin_cpu_supports("avx512cd") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vbmi2");
  return has;
}
}  // namespace

std::optional<FileItemListing> readFileItemListing(std::string text) {
  if (cpuHasIcelake()) return listing_icelake::readFileItemListing(std::move(text));
  if (cpuHasHaswell()) return listing_haswell::readFileItemListing(std::move(text));
  return listing_fallback::readFileItemListing(std::move(text));
}

std::vector<FileItemListingReader> fileItemListingReaders() {
  std::vector<FileItemListingReader> out;
  if (cpuHasIcelake()) out.push_back(&listing_icelake::readFileItemListing);
  if (cpuHasHaswell()) out.push_back(&listing_haswell::readFileItemListing);
  out.push_back(&listing_fallback::readFileItemListing);
  return out;
}

}  // namespace hvfp
