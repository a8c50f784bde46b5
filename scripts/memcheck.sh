#!/usr/bin/env bash
# Memcheck pass: every test program of a build, seven runs of the compass service (a
# fresh default run, a second run from its stored offsets, a replay of its raw record
# and one of its field log, and three with failing files or bus) and one of
# field_log_pair on that log's streams, under
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
# Only definite leaks are listed: a death test's child exits with its second thread's
# stack still held, which memcheck calls possibly lost.
vg=(valgrind --quiet --error-exitcode=99 --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite
  --track-origins=yes)

checked=0
failed=()
check() { # NAME COMMAND...   (the exit status must be $want, 0 unless set)
  local name=$1 status=0; shift
  "${vg[@]}" --log-file="$work/$name.log" "$@" >"$work/$name.out" 2>&1 || status=$?
  if [ $status -ne 99 ] && [ ! -s "$work/$name.log" ] && [ $status -eq "${want:-0}" ]; then
    checked=$((checked + 1))
  elif [ $status -eq 99 ] || [ -s "$work/$name.log" ]; then
    failed+=("$name"); echo "memcheck: $name: $(grep -m1 -E '==[0-9]+== [^ ]' "$work/$name.log")"
  else
    failed+=("$name"); echo "memcheck: $name exited $status: $(tail -2 "$work/$name.out")"
  fi
}

# Test programs: the build's own executables that CTest runs directly (benchmarks
# briefly); tests that wrap a program in cmake -E env or a script are left out.
root=$(realpath "$build")
while IFS=$'\t' read -r name program args; do
  [[ $program == "$root"/* ]] && file -b "$program" | grep '^ELF' >/dev/null || continue
  read -r -a extra <<<"$args"
  check "$name" "$program" "${extra[@]}"
done < <(ctest --test-dir "$build" --show-only=json-v1 | python3 -c '
import json, sys
for t in json.load(sys.stdin)["tests"]:
    cmd = t.get("command") or []
    if cmd: print(t["name"], cmd[0], " ".join(cmd[1:]), sep="\t")')

service=$build/tools/compass_service
check service-fresh "$service" --quiet --fresh --sandbox "$work/phone" --record "$work/r.csv" \
  --record-field "$work/f.csv"
check service-stored "$service" --quiet --sandbox "$work/phone"
check service-replay "$service" --quiet --replay "$work/r.csv" --sandbox "$work/replay"
check service-field-log "$service" --quiet --replay-field "$work/f.csv" --rate 20 --sandbox "$work/replay"
# The field log split into a phone's three streams and paired again.
split_stream() { # FIRST_COLUMN HEADER: columns FIRST.. of the field log's rows, with time_us
  awk -F, -v c="$1" -v h="$2" 'NR == 2 { print h } NR > 2 { s = $1; for (i = c; i < c + (h ~ /w$/ ? 4 : 3); ++i) s = s "," $i; print s }' "$work/f.csv"
}
split_stream 2 time_us,x,y,z >"$work/mag.csv"
split_stream 5 time_us,x,y,z >"$work/accel.csv"
split_stream 9 time_us,x,y,z,w >"$work/ref.csv"
check field-log-pair "$build/tools/field_log_pair" --reference "$work/ref.csv" "$work/mag.csv" "$work/accel.csv" \
  "$work/paired.csv"
# The error paths: every open from the fifth on fails (each save fails: exit 3), every
# rename fails, and a bus that stops answering part way through.
want=3 check service-files-fail "$service" --quiet --sandbox "$work/phone" --fault open:5:ENOSPC:all
want=3 check service-renames-fail "$service" --quiet --sandbox "$work/phone" --scenario magnet --fault rename:1:EROFS:all
check service-bus-fails "$service" --quiet --sandbox "$work/phone" --scenario still --fault read:200:EIO:all

echo "memcheck: $checked programs and runs clean, ${#failed[@]} failed${failed:+: ${failed[*]}}"
[ ${#failed[@]} -eq 0 ]
