#!/usr/bin/env bash
# Builds the libFuzzer targets (the fuzz preset: clang with AddressSanitizer
# and UndefinedBehaviorSanitizer) and runs each in turn for a set time.
#   fuzz/run.sh [seconds per target, default $FUZZ_SECONDS or 60] [target...]
# Seeds come from fuzz/corpus/<target>/; what a run learns is kept in
# build/fuzz/corpus/<target>/ for the next one, and inputs that fail land in
# build/fuzz/artifacts/. Prints the runs each target made; exits non-zero
# when any target failed.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-${FUZZ_SECONDS:-60}}
[ $# -gt 0 ] && shift
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(listing records events identifiers encoding download_create)

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "${JOBS:-$(nproc)}" >/dev/null
out=build/fuzz
mkdir -p "$out/artifacts"

# Replies and events may be large; identifiers and encodings are short.
max_len() {
  case $1 in
    listing | records | download_create | events) echo 65536 ;;
    *) echo 4096 ;;
  esac
}

failed=0
printf '%-16s %12s %8s\n' target runs seconds
for t in "${targets[@]}"; do
  mkdir -p "$out/corpus/$t"
  log="$out/$t.log"
  start=$(date +%s)
  status=ok
  "$out/fuzz/fuzz_$t" -max_total_time="$seconds" -max_len="$(max_len "$t")" -timeout=10 \
    -print_final_stats=1 -artifact_prefix="$out/artifacts/$t-" \
    "$out/corpus/$t" "fuzz/corpus/$t" >"$log" 2>&1 || status=FAILED
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo 0)
  printf '%-16s %12s %8s %s\n' "$t" "$runs" "$(($(date +%s) - start))" "$status"
  if [ "$status" != ok ]; then
    failed=1
    tail -40 "$log" >&2
  fi
done
exit $failed
