#!/usr/bin/env bash
# Builds the NAL splitting benchmark in Release (-O2) and runs it. Extra
# arguments go to the benchmark (e.g. --benchmark_repetitions=3).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
dir="$root/build-bench"
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" \
  -DLUMIFLUX_BUILD_BENCHMARKS=ON -DLUMIFLUX_BUILD_TESTS=OFF -DLUMIFLUX_BUILD_TOOLS=OFF \
  -DLUMIFLUX_BUILD_PLUGINS=OFF > "$dir.log" 2>&1 || { tail -n 50 "$dir.log"; exit 1; }
cmake --build "$dir" -j "$(nproc)" --target bench_nal_split >> "$dir.log" 2>&1 || { tail -n 80 "$dir.log"; exit 1; }
cd "$dir"
exec ./bench/bench_nal_split "$@"
