#!/usr/bin/env bash
# Fails when a folder includes a folder above it. The provider's layers, lowest
# first: platform -> digest -> records -> hostlink -> item -> tasks ->
# extension -> driver -> cli. halvo-hostd stands beside them and may use
# platform, digest and records only. Tests, benchmarks and fuzzers may include
# anything.
set -euo pipefail
cd "$(dirname "$0")/.."

layers=(platform digest records hostlink item tasks extension driver cli)
rank() {
  local i
  for i in "${!layers[@]}"; do [ "${layers[$i]}" = "$1" ] && { echo "$i"; return; }; done
  echo -1
}

bad=0
check_file() {  # file, folder of the file ("hostd" for the host app)
  local file=$1 own=$2 line target r
  while IFS= read -r line; do
    target=${line#*\"}
    target=${target%%/*}
    r=$(rank "$target")
    [ "$r" -lt 0 ] && continue  # a header of the same folder, or not ours
    if [ "$own" = hostd ]; then
      case $target in platform | digest | records) continue ;; esac
      echo "$file: halvo-hostd may not include $target/ ($line)"
      bad=1
    elif [ "$r" -gt "$(rank "$own")" ]; then
      echo "$file: $own/ may not include $target/, a layer above it ($line)"
      bad=1
    fi
  done < <(grep -hE '^\s*#\s*include\s+"[^"]+/' "$file" || true)
}

while IFS= read -r file; do
  own=${file#src/}
  own=${own%%/*}
  check_file "$file" "$own"
done < <(find src -type f \( -name '*.h' -o -name '*.cc' \) | sort)
while IFS= read -r file; do
  check_file "$file" hostd
done < <(find hostd -type f \( -name '*.h' -o -name '*.cc' \) | sort)

if [ "$bad" -ne 0 ]; then
  echo "check-layers: a folder reaches above its layer (see above)" >&2
  exit 1
fi
echo "check-layers: every include stays within its layer"
