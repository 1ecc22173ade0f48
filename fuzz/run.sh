#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a while.
#   fuzz/run.sh [seconds per target, default 60]
# Needs clang with libFuzzer (Debian: clang, libclang-rt-dev); not part of
# `make test`. Findings land in build/fuzz/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
out=build/fuzz
mkdir -p "$out"
flags=(-std=c++20 -O1 -g -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all -Isrc)
simd=(-mavx2 -mbmi -mbmi2 -mpclmul -mlzcnt -mpopcnt)
avx512=("${simd[@]}" -mavx512f -mavx512dq -mavx512cd -mavx512bw -mavx512vl -mavx512vbmi2)
objs=()
compile() { local src=$1; shift; local obj="$out/$(basename "${src%.cc}").o"; clang++ "${flags[@]/-fsanitize=fuzzer,/-fsanitize=fuzzer-no-link,}" "$@" -c "$src" -o "$obj"; objs+=("$obj"); }
for src in src/records/Json.cc src/records/JsonReading.cc src/records/HVFileItem.cc src/records/ReplyRecords.cc \
           src/records/FileItemListing.cc src/records/FileItemListingFallback.cc \
           src/platform/Text.cc src/platform/http/ReplyBuffers.cc; do
  compile "$src"
done
compile src/records/FileItemListingHaswell.cc "${simd[@]}"
compile src/records/FileItemListingIcelake.cc "${avx512[@]}"
clang++ "${flags[@]}" fuzz/fuzz_replies.cc "${objs[@]}" -lsimdjson -o "$out/fuzz_replies"
mkdir -p "$out/replies" fuzz/corpus/replies
"$out/fuzz_replies" -max_total_time="$seconds" -max_len=65536 -artifact_prefix="$out/" \
  "$out/replies" fuzz/corpus/replies
