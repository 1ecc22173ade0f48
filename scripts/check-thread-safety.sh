#!/usr/bin/env bash
# Compiles every source of src/ and hostd/ with clang's thread-safety
# analysis (-Wthread-safety as an error), syntax only: the lock annotations
# are checked without a second full build. Reads the compile commands of a
# configured build directory (default build/dev).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/dev}
clangxx=$(command -v clang++ || true)
[ -n "$clangxx" ] || { echo "check-thread-safety: clang++ is not installed (scripts/install-deps.sh installs it)" >&2; exit 1; }
[ -f "$build/compile_commands.json" ] || { echo "check-thread-safety: configure $build first" >&2; exit 1; }

python3 - "$build/compile_commands.json" "$clangxx" "$(pwd)" <<'PY' > "$build/thread-safety.cmds"
import json, shlex, sys
entries = json.load(open(sys.argv[1]))
clang, top = sys.argv[2], sys.argv[3]
for e in entries:
    f = e["file"]
    if not (f.startswith(top + "/src/") or f.startswith(top + "/hostd/")):
        continue
    args = shlex.split(e["command"])[1:]
    out, skip = [], False
    for a in args:
        if skip:
            skip = False
            continue
        if a == "-o":
            skip = True
            continue
        if a in ("-c", "-Werror", "-Wall", "-Wextra") or a.startswith("-Werror="):
            continue
        out.append(a)
    cmd = [clang, "-fsyntax-only", "-Wthread-safety", "-Werror=thread-safety"] + out
    print("cd %s && %s" % (shlex.quote(e["directory"]), " ".join(shlex.quote(a) for a in cmd)))
PY
count=$(wc -l < "$build/thread-safety.cmds")
if ! tr '\n' '\0' < "$build/thread-safety.cmds" | xargs -0 -P "$(nproc)" -I{} bash -c '{}' 2>"$build/thread-safety.log"; then
  grep -E 'error|warning: .*thread' "$build/thread-safety.log" | head -40 >&2
  echo "check-thread-safety: the lock annotations do not hold (full output in $build/thread-safety.log)" >&2
  exit 1
fi
echo "check-thread-safety: $count sources pass clang's thread-safety analysis"
