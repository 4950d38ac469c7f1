#!/usr/bin/env bash
# stage_install.sh <build dir> <stage dir>: installs the build into a fresh
# staging root (DESTDIR), as a user's installation would look, for the tool
# tests to run the installed tool from.
set -euo pipefail
build="$1"
stage="$2"
rm -rf "$stage"
mkdir -p "$stage"
DESTDIR="$stage" cmake --install "$build" > "$stage.log"
tool=$(find "$stage" -path '*/bin/lumiflux' -type f | head -n1)
[ -x "$tool" ] || { echo "no installed tool under $stage"; exit 1; }
sample=$(find "$stage" -path '*/share/lumiflux/sample.mkv' -type f | head -n1)
[ -s "$sample" ] || { echo "no installed sample under $stage"; exit 1; }
echo "staged: $tool, $sample"
