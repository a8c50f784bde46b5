#!/usr/bin/env bash
# Memcheck pass: every test program of a build, and three runs of the compass service
# (a fresh default run, a second run from its stored offsets, a replay), under
# valgrind's memcheck; any error or definite leak fails. Test scripts and the
# emulated armel build are left out (valgrind would check bash or qemu).
# Usage: scripts/memcheck.sh [BUILD_DIR]   (default build; builds it when missing)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
scripts/ensure-deps.sh
[ -f "$build/build.ninja" ] || cmake -S . -B "$build" -G Ninja >/dev/null
cmake --build "$build" -j "$(nproc)"
work=$build/memcheck
rm -rf "$work" && mkdir -p "$work"
vg=(valgrind --quiet --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite --track-origins=yes)

checked=0
failed=()
check() { # NAME COMMAND...
  local name=$1; shift
  if "${vg[@]}" --log-file="$work/$name.log" "$@" >"$work/$name.out" 2>&1; then
    checked=$((checked + 1))
  elif grep -q 'ERROR SUMMARY: [1-9]\|definitely lost' "$work/$name.log" || [ -s "$work/$name.log" ]; then
    failed+=("$name"); echo "memcheck: $name: $(grep -m1 -E '==[0-9]+== [A-Z]' "$work/$name.log")"
  else
    failed+=("$name"); echo "memcheck: $name exited non-zero: $(tail -2 "$work/$name.out")"
  fi
}

# Test programs: the build's own executables that CTest runs directly (benchmarks
# briefly); tests that wrap a program in cmake -E env or a script are left out.
root=$(realpath "$build")
while IFS=$'\t' read -r name program args; do
  [[ $program == "$root"/* ]] && file -b "$program" | grep -q '^ELF' || continue
  read -r -a extra <<<"$args"
  check "$name" "$program" "${extra[@]}"
done < <(ctest --test-dir "$build" --show-only=json-v1 | python3 -c '
import json, sys
for t in json.load(sys.stdin)["tests"]:
    cmd = t.get("command") or []
    if cmd: print(t["name"], cmd[0], " ".join(cmd[1:]), sep="\t")')

service=$build/tools/compass_service
check service-fresh "$service" --quiet --fresh --sandbox "$work/phone" --record "$work/r.csv"
check service-stored "$service" --quiet --sandbox "$work/phone"
check service-replay "$service" --quiet --replay "$work/r.csv" --sandbox "$work/replay"

echo "memcheck: $checked programs and runs clean, ${#failed[@]} failed${failed:+: ${failed[*]}}"
[ ${#failed[@]} -eq 0 ]
