#!/usr/bin/env bash
# Builds the codec benchmark in Release and runs it. Extra arguments go to the
# benchmark (e.g. --benchmark_repetitions=3).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
dir="$root/build-bench"
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DLUMIFLUX_BUILD_BENCHMARKS=ON -DLUMIFLUX_BUILD_TESTS=OFF \
  -DLUMIFLUX_BUILD_TOOLS=OFF -DLUMIFLUX_BUILD_PLUGINS=ON > "$dir.log" 2>&1 || { tail -n 50 "$dir.log"; exit 1; }
cmake --build "$dir" -j 2 --target bench_codecs >> "$dir.log" 2>&1 || { tail -n 80 "$dir.log"; exit 1; }
exec "$dir/bench/bench_codecs" "$@"
