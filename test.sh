#!/usr/bin/env bash
# Builds libkmxc_orvane.so and runs every test twice: once as shipped, once under
# AddressSanitizer and UndefinedBehaviorSanitizer (halting on the first report).
# Installs what is missing first. Usage: ./test.sh
set -euo pipefail
cd "$(dirname "$0")"
scripts/ensure-deps.sh

jobs=$(nproc)
run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" -j "$jobs" --output-on-failure --timeout 600
}

echo "== build and test: release"
run_suite build
echo "== build and test: AddressSanitizer + UndefinedBehaviorSanitizer"
ASAN_OPTIONS=halt_on_error=1:detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
  run_suite build-asan -DKMXC_SANITIZE=ON
