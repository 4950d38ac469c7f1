#!/usr/bin/env bash
# ThreadSanitizer stage: builds only the test programs that have scenarios
# marked TSAN (and what they need), then runs those scenarios.
set -euo pipefail
root="$1"
dir="$root/build-tsan"
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DLUMIFLUX_SANITIZE=thread \
  -DLUMIFLUX_BUILD_TOOLS=ON > "$dir.log" 2>&1 || { tail -n 50 "$dir.log"; exit 1; }
cmake --build "$dir" -j "$(nproc)" --target tsan_tests >> "$dir.log" 2>&1 || { tail -n 80 "$dir.log"; exit 1; }
count=$(cd "$dir" && ctest -N -L tsan | sed -n 's/^Total Tests: //p')
if [ "${count:-0}" -eq 0 ]; then
  echo "no ThreadSanitizer scenarios yet"
  exit 0
fi
# ThreadSanitizer needs the address layout it expects; where the machine
# refuses to turn randomisation off (some containers), run without.
launcher=()
if setarch "$(uname -m)" -R true 2>/dev/null; then
  launcher=(setarch "$(uname -m)" -R)
else
  echo "note: address randomisation stays on (setarch -R refused)"
fi
(cd "$dir" && "${launcher[@]}" ctest --output-on-failure -L tsan -j "$(nproc)" --timeout 600)
