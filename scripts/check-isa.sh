#!/usr/bin/env bash
# Checks that the listing reader's per-instruction-set copies cannot run an
# instruction the CPU lacks:
#   1. the fallback and haswell objects hold no AVX-512 instruction;
#   2. the haswell and icelake objects export nothing but their entry points
#      (no weak or inline function another file could end up calling), and
#      none of their symbols is defined by any other object of the build.
# A sanity check makes sure the icelake object does hold AVX-512 code, so a
# pattern that sees nothing cannot pass by accident.
#   scripts/check-isa.sh <build dir>     e.g. build/dev or build/release
set -euo pipefail

build=${1:?usage: $0 <build dir>}
[ -d "$build" ] || { echo "check-isa: no such build directory: $build" >&2; exit 2; }
for tool in objdump nm; do
  command -v "$tool" >/dev/null || { echo "check-isa: $tool not found" >&2; exit 2; }
done

object() {
  local found
  found=$(find "$build" -path '*hvfp_records.dir*' -name "FileItemListing$1.cc.o" -print -quit)
  [ -n "$found" ] || { echo "check-isa: no FileItemListing$1.cc.o under $build (build hvfp_records first)" >&2; exit 2; }
  echo "$found"
}
fallback=$(object Fallback)
haswell=$(object Haswell)
icelake=$(object Icelake)

# An AVX-512 instruction is anything EVEX-encoded: its first opcode byte,
# after any legacy prefix, is 62 (in 64-bit code 62 means nothing else). The
# opmask instructions are VEX-encoded, so registers are matched as well: the
# opmasks, zmm, and xmm/ymm 16-31, with embedded broadcast and rounding.
prefixes='^(f0|f2|f3|2e|36|3e|26|64|65|66|67)$'
registers='%zmm|%k[0-7]|%[xy]mm(1[6-9]|2[0-9]|3[01])|[{]1to|[{]sae[}]|-sae[}]'

# Prints "<count> <function>" for each function of $1 that holds AVX-512.
avx512_functions() {
  objdump -d -C "$1" |
    awk -F '\t' -v prefixes="$prefixes" -v registers="$registers" '
      /^[0-9a-f]+ <.*>:$/ { fn = $0; next }
      NF < 3 { next }
      {
        n = split($2, bytes, " ")
        i = 1
        while (i <= n && bytes[i] ~ prefixes) i++
        if ((i <= n && bytes[i] == "62") || $3 ~ registers) count[fn]++
      }
      END { for (f in count) print count[f], f }'
}

failed=0
for obj in "$fallback" "$haswell"; do
  hits=$(avx512_functions "$obj")
  if [ -n "$hits" ]; then
    echo "FAIL: AVX-512 instructions in $(basename "$obj"):"
    echo "$hits" | sed 's/^/  /'
    failed=1
  else
    echo "ok: no AVX-512 instruction in $(basename "$obj")"
  fi
done

sanity=$(avx512_functions "$icelake" | awk '{ n += $1 } END { print n + 0 }')
if [ "$sanity" -eq 0 ]; then
  echo "FAIL: the pattern finds no AVX-512 in $(basename "$icelake") either; the check cannot be trusted"
  failed=1
else
  echo "ok: the pattern finds $sanity AVX-512 instructions in $(basename "$icelake")"
fi

# Symbols every C++ object may carry: the personality routine's pointer is
# data, identical in every copy.
harmless='^DW\.ref\.__gxx_personality_v0$'
for pair in "haswell:$haswell" "icelake:$icelake"; do
  isa=${pair%%:*}
  obj=${pair#*:}
  name=$(basename "$obj")
  # Weak (W, V), unique (u) and indirect (i) definitions are the ones the
  # linker may merge with another file's copy.
  weak=$(nm "$obj" | awk '$2 ~ /^[WVui]$/ { print $3 }' | grep -Ev "$harmless" || true)
  if [ -n "$weak" ]; then
    echo "FAIL: $name defines $(echo "$weak" | wc -l) weak or inline symbols, e.g.:"
    echo "$weak" | sed -n '1,10p' | c++filt | sed 's/^/  /'
    failed=1
  else
    echo "ok: $name defines no weak or inline symbol"
  fi
  exported=$(nm "$obj" | awk '$2 ~ /^[A-TV-Z]$/ { print $3 }' | grep -Ev "$harmless" || true)
  foreign=$(echo "$exported" | c++filt | grep -v "^hvfp::listing_${isa}::" | grep -v '^$' || true)
  if [ -n "$foreign" ]; then
    echo "FAIL: $name exports symbols outside hvfp::listing_${isa}:"
    echo "$foreign" | sed -n '1,10p' | sed 's/^/  /'
    failed=1
  else
    echo "ok: $name exports only: $(echo "$exported" | c++filt | paste -sd ' ')"
  fi
  # Defined anywhere else in the build is shared, whatever the binding.
  others=$(find "$build" -name '*.o' ! -path "$obj" -print0 |
    xargs -0 -r nm --defined-only 2>/dev/null | awk 'NF >= 3 && $2 !~ /^[a-z]$/ { print $3 }' | sort -u)
  shared=$(comm -12 <(echo "$exported" | sort -u) <(echo "$others") | grep -Ev "$harmless" || true)
  if [ -n "$shared" ]; then
    echo "FAIL: $name shares symbols with other objects:"
    echo "$shared" | sed -n '1,10p' | c++filt | sed 's/^/  /'
    failed=1
  else
    echo "ok: no other object of $build defines a symbol of $name"
  fi
done

exit "$failed"
