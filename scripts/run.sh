#!/usr/bin/env bash
# make run: starts the reference host app with its sample cloud (unless one is
# already answering), mounts the domain as a folder and shows it.
# make stop (run.sh BUILD stop): unmounts the folder and stops what make run
# started.
set -euo pipefail

build=${1:-build/release}
action=${2:-run}
hostd="$build/hostd/halvo-hostd"
halvofp="$build/src/cli/halvofp"
root="${HALVO_ROOT:-${XDG_DATA_HOME:-$HOME/.local/share}/halvo-hostd}"
dir="${HALVO_MOUNT:-$HOME/Halvo}"
port=24753
mkdir -p "$root"

say() { printf '\n\033[1m%s\033[0m\n' "$*"; }

# Whether a halvofp folder is mounted at `dir` (field 5 of mountinfo is the
# mount point, the field after "-" the type).
mounted() {
  awk -v d="$(realpath -m "$dir")" \
    '$5 == d { for (i = 7; i < NF; i++) if ($i == "-" && $(i + 1) == "fuse.halvofp") found = 1 }
     END { exit !found }' /proc/self/mountinfo
}

# The background mount process of `dir`, if one runs (its command line is
# "halvofp mount DIR ...").
mount_pid() {
  local want
  want=$(realpath -m "$dir")
  for p in /proc/[0-9]*; do
    local args=()
    mapfile -d '' -t args <"$p/cmdline" 2>/dev/null || continue
    [ "${#args[@]}" -ge 3 ] && [ "${args[1]}" = mount ] && [[ ${args[0]} == *halvofp ]] || continue
    [ "$(cd / && realpath -m "${args[2]}")" = "$want" ] && { echo "${p#/proc/}"; return; }
  done
  return 0
}

alive() { [ -s "$1" ] && kill -0 "$(cat "$1")" 2>/dev/null; }

stop() {
  if mounted; then
    say "\$ halvofp unmount $dir"
    "$halvofp" unmount "$dir" || exit 1
    # The mount process sends what is still waiting for upload, then ends.
    local pid
    pid=$(mount_pid)
    if [ -n "$pid" ]; then
      for _ in $(seq 1 400); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    fi
  else
    echo "$dir is not mounted"
  fi
  if alive "$root/hostd.pid"; then
    echo "stopping halvo-hostd (its data stays in $root)"
    kill "$(cat "$root/hostd.pid")"
  fi
  rm -f "$root/hostd.pid"
  if alive "$root/bus.pid"; then kill "$(cat "$root/bus.pid")"; fi
  rm -f "$root/bus.pid" "$root/bus.address"
}

if [ "$action" = stop ]; then
  stop
  exit 0
fi

# Host events travel on the session bus. Without one (a fresh machine, a
# container) start a private bus for this demo and remember its address.
bus_note=""
if [ -z "${DBUS_SESSION_BUS_ADDRESS:-}" ]; then
  if ! { [ -s "$root/bus.address" ] && dbus-send --bus="$(cat "$root/bus.address")" \
      --dest=org.freedesktop.DBus --print-reply / org.freedesktop.DBus.GetId >/dev/null 2>&1; }; then
    exec 3>"$root/bus.pid"
    dbus-daemon --session --fork --nopidfile --print-address=1 --print-pid=3 >"$root/bus.address"
    exec 3>&-
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
  echo $! >"$root/hostd.pid"
  for _ in $(seq 1 100); do
    answering && break
    if ! alive "$root/hostd.pid"; then
      echo "halvo-hostd stopped at once; the end of its log:" >&2
      tail -n 20 "$root/hostd.log" >&2
      exit 1
    fi
    sleep 0.1
  done
  answering || { echo "halvo-hostd does not answer on port $port; see $root/hostd.log" >&2; exit 1; }
fi

mkdir -p "$dir"
if mounted && ! ls "$dir" >/dev/null 2>&1; then
  # Its process is gone: the kernel still holds the mount but nobody serves it.
  "$halvofp" unmount "$dir" >/dev/null 2>&1 || umount -l "$dir" 2>/dev/null || true
fi
if mounted; then
  say "$dir is mounted already"
else
  say "\$ halvofp mount $dir"
  "$halvofp" mount "$dir" --port "$port"
fi

say "\$ ls -l $dir"
ls -l "$dir"
say "\$ ls -l $dir/Docs"
ls -l "$dir/Docs"
say "\$ cat $dir/Docs/README.txt"
cat "$dir/Docs/README.txt"

say "What next"
cat <<EOT
  The folder is the cloud: use it with any program.
    cd $dir/Docs
    ls -l                   listings come from the host; changes made there show up by themselves
    cp ~/some-file .        uploaded once the file is closed ("sync some-file" waits for it)
    mv some-file Reports/   renames and moves reach the cloud at once
    vim notes.md            an edit is uploaded as the file's new contents
    rm notes.md             moves it to $dir/.Trash; mv it out of .Trash to restore it
    rm ../.Trash/notes.md   deletes it for good
  The console is $halvofp (add it to your PATH: export PATH="\$PWD/$build/src/cli:\$PWD/$build/hostd:\$PATH").
${bus_note:+  This demo runs its own session bus; in a new shell first: $bus_note
}
  halvofp ls                            the mounts as the provider lists them; halvofp ls 1: the first one
  halvofp stat ID                       every property of one item (--json for scripts)
  halvofp put FILE 1                    the same framework calls the folder makes, one at a time
  halvofp status                        what the mount is doing: transfers, uploads waiting, cache use
  halvofp watch                         host events as they come; in another shell try:
  halvo-hostd ctl --root $root add-file --mount 1 --name hello.txt --text hi
  halvo-hostd ctl --help                change the cloud as another device would, inject faults

  make stop                             unmount $dir and stop the host (it keeps its data in $root)
EOT
