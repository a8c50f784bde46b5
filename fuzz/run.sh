#!/usr/bin/env bash
# Runs one fuzz target for as long as asked, starting from its seed corpus; what it
# finds new goes to out/fuzz/<target>/ (the seeds in the tree are only read).
# Usage: fuzz/run.sh TARGET SECONDS [BUILD_DIR]   (targets: fuzz/*.cpp; build: build-fuzz)
#   e.g. fuzz/run.sh fuzz_numerics 600
set -euo pipefail
cd "$(dirname "$0")/.."
[ $# -ge 2 ] || { sed -n '2,5p' "$0" >&2; exit 2; }
target=$1 seconds=$2 build=${3:-build-fuzz}
[ -f "fuzz/$target.cpp" ] || { echo "fuzz/run.sh: no target '$target' (one of: $(cd fuzz && ls fuzz_*.cpp | sed 's/\.cpp//' | tr '\n' ' '))" >&2; exit 2; }
[[ $seconds =~ ^[0-9]+$ ]] || { echo "fuzz/run.sh: SECONDS must be a whole number" >&2; exit 2; }
if [ ! -x "$build/fuzz/$target" ]; then
  CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DKMXC_SANITIZE=ON -DKMXC_FUZZ=ON >/dev/null
  cmake --build "$build" -j "$(nproc)" --target "$target"
fi
mkdir -p "out/fuzz/$target"
exec "$build/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 "out/fuzz/$target" "fuzz/corpus/$target"
