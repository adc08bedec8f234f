#!/usr/bin/env bash
# Installs every Debian package that the build, the tests and the benchmarks
# need. Idempotent: it asks apt only for what is missing, and refreshes the
# package lists only when something is.
set -euo pipefail

packages=(
  g++
  make
  cmake
  libgtest-dev
  libgmock-dev
  libbenchmark-dev
  libboost-graph-dev
  clang-format
  clang
  libclang-rt-14-dev
  nlohmann-json3-dev
  pkg-config
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
