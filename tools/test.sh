#!/usr/bin/env bash
# Builds and runs the whole test suite with CTest.
#   tools/test.sh             normal build (build/)
#   tools/test.sh --sanitize  under AddressSanitizer and UBSan (build-asan/)
set -euo pipefail
cd "$(dirname "$0")/.."

dir=$(bash tools/build.sh "$@" | tail -n 1)
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
# Traces stay off unless a test turns them on.
export MIVLOG_DISABLE=1
cd "$dir"
ctest --output-on-failure -j"$(nproc)"
