#!/usr/bin/env bash
# Makes the Debian packages of a build tree with cpack into OUT_DIR (emptied first) and
# names them. Usage: make_packages.sh BUILD_DIR OUT_DIR
set -euo pipefail
build=$1 out=$2
# Only ever empties its own output directory.
rm -rf "$out"
mkdir -p "$out"
cpack --config "$build/CPackConfig.cmake" -B "$out" >"$out/cpack.log" 2>&1 || { cat "$out/cpack.log"; exit 1; }
ls -1 "$out"/*.deb
