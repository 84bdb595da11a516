#!/usr/bin/env bash
# Installs every Debian package that building and testing clockette needs.
# Safe to run again: packages already present are left as they are.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  libcurl4-openssl-dev libssl-dev openssl curl
  libgtest-dev libgmock-dev libbenchmark-dev
  libtirpc-dev
  clang libclang-rt-14-dev rpcsvc-proto
  systemd libsystemd-dev
  dpkg-dev lintian
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "setup-deps: all packages present"
  exit 0
fi

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
