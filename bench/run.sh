#!/usr/bin/env bash
# Runs every benchmark program of a release build and gathers the ratio lines.
set -euo pipefail
build=${1:-build/release}
out=$(mktemp)
trap 'rm -f "$out"' EXIT
for b in "$build"/bench/bench_*; do
  [ -x "$b" ] || continue
  echo "== $(basename "$b")"
  "$b" --benchmark_min_time=0.01 | tee -a "$out"
done
echo
echo "== ratios (project time / reference time; lower is better)"
grep '^ratio ' "$out" || echo "no ratios reported"
