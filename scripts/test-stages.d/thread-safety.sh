#!/usr/bin/env bash
# Thread-safety stage: builds the library with clang's thread-safety analysis
# over the player (-Wthread-safety -Werror), so that a field touched without
# the lock that guards it, or a lock taken against its annotations, fails the
# build. Only the library is built: the analysis is all this stage is for.
set -euo pipefail
root="$1"
dir="$root/build-thread-safety"
CC=clang CXX=clang++ cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=Debug \
  -DLUMIFLUX_THREAD_SAFETY_ANALYSIS=ON -DLUMIFLUX_BUILD_TESTS=OFF -DLUMIFLUX_BUILD_PLUGINS=OFF \
  -DLUMIFLUX_BUILD_TOOLS=OFF > "$dir.log" 2>&1 || { tail -n 50 "$dir.log"; exit 1; }
cmake --build "$dir" -j "$(nproc)" --target lumiflux >> "$dir.log" 2>&1 || { grep -E "error|warning" "$dir.log" | head -n 80; exit 1; }
echo "player built clean under -Wthread-safety -Werror"
