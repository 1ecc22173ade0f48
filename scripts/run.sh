#!/usr/bin/env bash
# make run: starts the reference host app with its sample cloud (unless one is
# already answering), then shows the domain through the provider's console.
set -euo pipefail

build=${1:-build/release}
hostd="$build/hostd/halvo-hostd"
halvofp="$build/src/cli/halvofp"
root="${HALVO_ROOT:-${XDG_DATA_HOME:-$HOME/.local/share}/halvo-hostd}"
port=24753
mkdir -p "$root"

say() { printf '\n\033[1m%s\033[0m\n' "$*"; }

# Host events travel on the session bus. Without one (a fresh machine, a
# container) start a private bus for this demo and remember its address.
bus_note=""
if [ -z "${DBUS_SESSION_BUS_ADDRESS:-}" ]; then
  if [ -s "$root/bus.address" ] && dbus-send --bus="$(cat "$root/bus.address")" --dest=org.freedesktop.DBus \
      --print-reply / org.freedesktop.DBus.GetId >/dev/null 2>&1; then
    :
  else
    dbus-daemon --session --fork --nopidfile --print-address=1 > "$root/bus.address"
  fi
  DBUS_SESSION_BUS_ADDRESS="$(cat "$root/bus.address")"
  export DBUS_SESSION_BUS_ADDRESS
  bus_note="export DBUS_SESSION_BUS_ADDRESS='$DBUS_SESSION_BUS_ADDRESS'"
fi

answering() { curl -fsS -o /dev/null "http://127.0.0.1:$port/provider?type=links" 2>/dev/null; }

if answering; then
  say "halvo-hostd is already answering on port $port"
else
  say "starting halvo-hostd (data in $root, log in $root/hostd.log)"
  nohup "$hostd" --root "$root" --port "$port" --seed sample >>"$root/hostd.log" 2>&1 &
  echo $! > "$root/hostd.pid"
  for _ in $(seq 1 100); do
    answering && break
    if ! kill -0 "$(cat "$root/hostd.pid")" 2>/dev/null; then
      echo "halvo-hostd stopped at once; the end of its log:" >&2
      tail -n 20 "$root/hostd.log" >&2
      exit 1
    fi
    sleep 0.1
  done
  answering || { echo "halvo-hostd does not answer on port $port; see $root/hostd.log" >&2; exit 1; }
fi

say "\$ halvofp ls"
"$halvofp" ls

mount=$("$halvofp" --json ls | sed -n 's/.*"itemIdentifier":"\([^"]*\)".*/\1/p' | head -n 1)
if [ -n "$mount" ]; then
  say "\$ halvofp ls $mount"
  "$halvofp" ls "$mount"
fi

say "What next"
cat <<EOT
  The console is $halvofp (add it to your PATH: export PATH="\$PWD/$build/src/cli:\$PWD/$build/hostd:\$PATH").
${bus_note:+  This demo runs its own session bus; in a new shell first: $bus_note
}
  halvofp ls ${mount:-ID}                       list a folder (identifiers are in the table)
  halvofp stat ID                       every property of one item (--json for scripts)
  halvofp ls NSFileProviderTrashContainerItemIdentifier
  halvofp watch                         host events as they come; in another shell try:
  halvo-hostd ctl --root $root add-folder --mount ${mount:-1} --name "New folder"

  halvo-hostd ctl --help                change the cloud as another device would, inject faults
  kill \$(cat $root/hostd.pid)     stop the host (it keeps its data in $root)
EOT
