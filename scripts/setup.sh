#!/usr/bin/env bash
# Installs the Debian packages QEL needs to build, test and benchmark, when
# they are missing. Safe to run again: it does nothing when all are present.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  zlib1g-dev libssl-dev libasio-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  clang libclang-rt-14-dev clang-format
  libzmq3-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
