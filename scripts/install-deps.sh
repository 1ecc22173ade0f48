#!/usr/bin/env bash
# Installs the build and test dependencies with apt-get, only those missing.
# Safe to run again; uses sudo when not root.
set -euo pipefail

packages=(
  build-essential cmake pkg-config clang libclang-rt-dev
  libcurl4-openssl-dev libssl-dev zlib1g-dev
  libsimdjson-dev libsystemd-dev libfmt-dev libsqlite3-dev
  libcpp-httplib-dev libcli11-dev
  libfuse3-dev fuse3
  dbus dbus-daemon dbus-bin
  libgtest-dev libgmock-dev libbenchmark-dev
  curl openssl
  git rsync sqlite3 vim fio
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: everything is installed"
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "install-deps: installing ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
