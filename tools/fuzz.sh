#!/usr/bin/env bash
# Fuzzes every decoder of outside input with libFuzzer (clang, ASan, UBSan)
# in build-fuzz/, each target for a bounded time.
#   tools/fuzz.sh                  every target for $CSPF_FUZZ_SECONDS (30) seconds
#   tools/fuzz.sh --seconds N [T]  for N seconds; only targets T... when named
#   tools/fuzz.sh --make-corpus    rewrites the seeds in tests/fuzz/corpus/
# Starts from tests/fuzz/corpus/<target>/ and keeps what it finds in
# build-fuzz/corpus/<target>/. A crash is saved in build-fuzz/crashes/<target>/
# and fails the run. Without clang's fuzzer runtime it says so and exits 0.
set -euo pipefail
cd "$(dirname "$0")/.."

targets=(table_file records topology_file command_line)
seconds=${CSPF_FUZZ_SECONDS:-30}

if [ "${1:-}" = "--make-corpus" ]; then
  cmake -S . -B build >/dev/null
  cmake --build build --target fuzz_make_corpus -j"$(nproc)"
  find tests/fuzz/corpus -name 'seed-*' -delete 2>/dev/null || true
  build/fuzz/fuzz_make_corpus tests/fuzz/corpus examples/topology.json
  echo "fuzz: seeds written to tests/fuzz/corpus/"
  exit 0
fi
if [ "${1:-}" = "--seconds" ]; then
  seconds=$2
  shift 2
fi
if [ $# -gt 0 ]; then
  targets=("$@")
fi

# libFuzzer comes with clang's runtime (Debian: clang, libclang-rt-14-dev).
probe=$(mktemp -d)
trap 'rm -rf "$probe"' EXIT
echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' \
  >"$probe/probe.cpp"
if ! command -v clang++ >/dev/null ||
  ! clang++ -fsanitize=fuzzer "$probe/probe.cpp" -o "$probe/probe" 2>/dev/null; then
  echo "fuzz: SKIPPED: clang++ with libFuzzer is missing (bash tools/setup.sh installs it)"
  exit 0
fi

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCSPF_FUZZ=ON \
  -DCSPF_BUILD_BENCH=OFF "${launcher[@]}" >/dev/null
cmake --build build-fuzz -j"$(nproc)" --target "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export MIVLOG_DISABLE=1
failed=0
for t in "${targets[@]}"; do
  mkdir -p "build-fuzz/corpus/$t" "build-fuzz/crashes/$t"
  log="build-fuzz/fuzz-$t.log"
  if "build-fuzz/fuzz/fuzz_$t" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="build-fuzz/crashes/$t/" \
    "build-fuzz/corpus/$t" "tests/fuzz/corpus/$t" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    inputs=$(find "build-fuzz/corpus/$t" -type f | wc -l)
    echo "fuzz: $t: ${runs:-?} executions in ${seconds} s, no crash" \
      "($inputs inputs in build-fuzz/corpus/$t)"
  else
    failed=1
    echo "fuzz: $t: FAILED; the input is in build-fuzz/crashes/$t/, the log in $log:"
    grep -E "ERROR|fuzz check failed|SUMMARY|Test unit written|^ *#[0-9]+ " "$log" | head -40
  fi
done
if [ "$failed" = 1 ]; then
  echo "fuzz: a crash input becomes a regression input: tests/fuzz/corpus/<target>/regress-<what>"
  exit 1
fi
