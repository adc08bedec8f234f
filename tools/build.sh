#!/usr/bin/env bash
# Configures and builds one build tree.
#   tools/build.sh            normal build in build/
#   tools/build.sh --sanitize AddressSanitizer + UBSan build in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."

dir=build
opts=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
if [ "${1:-}" = "--sanitize" ]; then
  dir=build-asan
  opts=(-DCMAKE_BUILD_TYPE=Debug -DCSPF_SANITIZE=ON -DCSPF_BUILD_BENCH=OFF)
fi

cmake -S . -B "$dir" "${opts[@]}" >/dev/null
cmake --build "$dir" -j"$(nproc)"
echo "$dir"
