#!/usr/bin/env bash
# The main job. Until the agent exists this builds everything and says so.
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/build.sh >/dev/null
echo "Built the platform, the records, the tests and the benchmarks in build/."
echo "The demo (an agent computing paths over the example topology) comes with the agent;"
echo "until then try: build/bench/bench_runtime, or bash tools/test.sh"
