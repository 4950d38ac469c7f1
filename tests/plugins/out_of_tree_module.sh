#!/usr/bin/env bash
# Installs the build into a fresh staging root (DESTDIR), then builds a
# module outside the project twice (pkg-config alone; find_package) and has
# the installed tool load each.
set -euo pipefail
build="$1"
src="$2"
work="$build/test-work/out-of-tree-$$"
rm -rf "$work"
mkdir -p "$work"
trap 'rm -rf "$work"' EXIT
stage="$work/stage"

DESTDIR="$stage" cmake --install "$build" > "$work/install.log"
pc_dir=$(dirname "$(find "$stage" -name lumiflux.pc | head -n1)")
prefix=$(cd "$pc_dir/../.." && pwd)
[ -f "$prefix/include/lumiflux/lumiflux.h" ] || { echo "no headers under $prefix"; exit 1; }

mkdir -p "$work/by-pkgconfig"
g++ -std=c++17 -shared -fPIC -DFIXTURE_PRIORITY=42 -o "$work/by-pkgconfig/module.so" "$src/../../fixtures/valid_module.cpp" \
  $(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs lumiflux)

cmake -S "$src" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" > "$work/cmake.log"
cmake --build "$work/cmake-build" > "$work/cmake-build.log"
mkdir -p "$work/by-cmake"
cp "$work/cmake-build/out_of_tree_module.so" "$work/by-cmake/"

tool="$prefix/bin/lumiflux"
for dir in "$work/by-pkgconfig" "$work/by-cmake"; do
  out=$(LUMIFLUX_NO_SYSLOG=1 LUMIFLUX_PLUGIN_DIR="$dir" "$tool" --json plugins)
  echo "$out"
  echo "$out" | grep -q '"priority":42' || { echo "module in $dir was not loaded"; exit 1; }
done
echo "out-of-tree modules load"
