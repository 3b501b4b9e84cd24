#!/usr/bin/env bash
# Installs the Debian packages a group of tasks needs, when they are missing:
#   setup.sh            what building and running need (make build, make run)
#   setup.sh test       the test suite's extras (make test, make test-asan)
#   setup.sh bench      the benchmarks' extras (make bench)
#   setup.sh python     the Python module's (make python, make test)
#   setup.sh hosts      network namespaces (make soak-hosts)
#   setup.sh fuzz       the fuzzers' extras (make fuzz)
#   setup.sh format     clang-format (make format)
# Safe to run again: it does nothing when all are present.
set -euo pipefail

packages=()
for group in "${@:-build}"; do
  case "$group" in
    build)
      packages+=(build-essential cmake ninja-build pkg-config
        zlib1g-dev libdeflate-dev libssl-dev libxxhash-dev libasio-dev libcli11-dev nlohmann-json3-dev libedit-dev
        libcpp-httplib-dev) ;;
    test)   packages+=(libgtest-dev libgmock-dev binutils pkg-config chromium) ;;
    bench)  packages+=(libbenchmark-dev libzmq3-dev) ;;
    python) packages+=(python3-dev pybind11-dev python3-pytest) ;;
    hosts)  packages+=(iproute2) ;;
    fuzz)   packages+=(clang libclang-rt-14-dev) ;;
    format) packages+=(clang-format) ;;
    *) echo "setup: unknown group '$group' (build, test, bench, python, hosts, fuzz, format)" >&2; exit 2 ;;
  esac
done

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
