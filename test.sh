#!/usr/bin/env bash
# Checks that every C and C++ file has the tree's style, then builds libkmxc_orvane.so
# and runs every test three times: as shipped on x86-64; under
# AddressSanitizer and UndefinedBehaviorSanitizer (halting on the first report); and
# cross-built for the real target, ARM without an FPU (Debian armel), run under
# qemu-arm, where it must also give byte for byte the x86-64 build's results. Then a
# short run of every libFuzzer target under the sanitizers (clang). Last, realistic
# faults planted alone, each of which some test must catch.
# Installs what is missing first. Usage: ./test.sh
set -euo pipefail
cd "$(dirname "$0")"
scripts/ensure-deps.sh
scripts/check-format.sh

jobs=$(nproc)
run_suite() {
  local name=$1 dir=$2; shift 2
  local start=$SECONDS
  echo "== build and test: $name"
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" -j "$jobs" --output-on-failure --timeout 600
  echo "== $name: $((SECONDS - start)) s"
}

# Through a compiler cache (in build/), which the planted-fault pass's build of the same
# sources starts from.
run_suite "x86-64 release" build -DKMXC_COMPILER_CACHE="$PWD/build/ccache"
ASAN_OPTIONS=halt_on_error=1:detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
  run_suite "x86-64 AddressSanitizer + UndefinedBehaviorSanitizer" build-asan -DKMXC_SANITIZE=ON
run_suite "armel (ARMv5TE soft-float) under qemu-arm" build-armel \
  -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/armel.cmake" -DKMXC_NATIVE_BUILD_DIR="$PWD/build"

# Fuzz smoke: each target a fixed number of runs from its seed corpus. New inputs go to
# a scratch folder of the build, never into the tree's corpus.
start=$SECONDS
echo "== fuzz smoke: libFuzzer targets under AddressSanitizer + UndefinedBehaviorSanitizer (clang)"
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DKMXC_SANITIZE=ON -DKMXC_FUZZ=ON >/dev/null
targets=$(cd fuzz && ls fuzz_*.cpp | sed 's/\.cpp$//')
# The shared libraries too: they must link under clang's sanitizers.
cmake --build build-fuzz -j "$jobs" --target kmxc_orvane kmxc_service $targets
for t in $targets; do
  rm -rf "build-fuzz/fuzz-scratch/$t" && mkdir -p "build-fuzz/fuzz-scratch/$t"
  ASAN_OPTIONS=halt_on_error=1:detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    "build-fuzz/fuzz/$t" -runs="${KMXC_FUZZ_RUNS:-20000}" -artifact_prefix="build-fuzz/fuzz-scratch/$t-" \
    "build-fuzz/fuzz-scratch/$t" "fuzz/corpus/$t" 2>"build-fuzz/fuzz-scratch/$t.log" ||
    { tail -40 "build-fuzz/fuzz-scratch/$t.log"; echo "fuzz: $t failed"; exit 1; }
  echo "fuzz: $t $(grep -E '^Done' "build-fuzz/fuzz-scratch/$t.log")"
done
echo "== fuzz smoke: $((SECONDS - start)) s"

# Planted faults: each fault of scripts/faults.txt alone in a scratch worktree, several
# worktrees at once; every one must make some test fail.
start=$SECONDS
echo "== planted faults: scripts/plant_faults.py"
scripts/plant_faults.py
echo "== planted faults: $((SECONDS - start)) s"
echo "== all passes: $SECONDS s"
