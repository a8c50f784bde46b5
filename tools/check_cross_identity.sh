#!/usr/bin/env bash
# The armel build must compute exactly what the x86-64 build computes: for every
# shipped scenario, runs both builds' compass_service from fresh sandboxes and compares
# their per-sample outputs, raw records and calibration files byte for byte, then
# replays one record and one field log on both and compares again. The scenario list comes from the
# program's own --help, so a new scenario is covered without touching this script.
# RATE (cycles per second) is passed to every scenario run; without it the program's
# default applies. The same script compares two native builds (an empty EMULATOR), say
# a tree before and after a change that must not change any output.
# Usage: check_cross_identity.sh NATIVE_SERVICE CROSS_SERVICE "EMULATOR" WORK_DIR [RATE]
set -euo pipefail
native=$1 cross=$2 emulator=$3 work=$4 rate=${5:-}
rate_args=()
[ -z "$rate" ] || rate_args=(--rate "$rate")
fail() { echo "FAIL: $*" >&2; exit 1; }
[ -x "$native" ] || fail "no x86-64 compass_service at '$native' (build the default preset first)"
[ -x "$cross" ] || fail "no armel compass_service at '$cross'"

# Only ever empties its own scratch directory.
rm -rf "$work"
mkdir -p "$work"

run() { # BUILD NAME ARGS...: runs one build's program, outputs under $work/BUILD/NAME
  local build=$1 name=$2; shift 2
  local dir=$work/$build/$name
  mkdir -p "$dir"
  local prog=("$(realpath "$native")")
  [ "$build" = armel ] && { read -r -a prog <<<"$emulator"; prog+=("$(realpath "$cross")"); }
  # From the build's own folder with relative paths, so the summaries name the same files.
  (cd "$work/$build" && "${prog[@]}" --quiet --sandbox "$name/sandbox" --outputs "$name/outputs.csv" \
    --summary-json "$name/summary.json" "$@" \
    >"$name/stdout" 2>"$name/stderr") || fail "$build $name exited with $?: $(tail -3 "$dir/stderr")"
}
same() { # NAME FILE: the two builds' copies are identical
  cmp -s "$work/x86-64/$1/$2" "$work/armel/$1/$2" ||
    fail "$1: $2 differs between x86-64 and armel: $(cmp "$work/x86-64/$1/$2" "$work/armel/$1/$2" 2>&1 | head -1)"
}

scenarios=$("$native" --help | sed -n 's/.*--scenario NAME *handling script: \([^(]*\)(.*/\1/p' | tr -d ',')
[ -n "$scenarios" ] || fail "could not read the scenario list from --help"
compared=0
for s in $scenarios; do
  for build in x86-64 armel; do
    run "$build" "$s" --fresh --scenario "$s" "${rate_args[@]}" --record "$s.rec.csv" --record-field "$s.field.csv"
  done
  same "$s" outputs.csv
  same "$s" stdout
  same "$s" summary.json
  cmp -s "$work/x86-64/$s.rec.csv" "$work/armel/$s.rec.csv" || fail "$s: the raw records differ"
  same "$s" sandbox/misc/sensor/kmxc_orvane.cfg
  compared=$((compared + 1))
done

# A replay of the default scenario's x86-64 record, on both builds.
for build in x86-64 armel; do run "$build" replay --replay ../x86-64/default.rec.csv; done
same replay outputs.csv
same replay stdout
same replay summary.json
same replay sandbox/misc/sensor/kmxc_orvane.cfg
# And of its field log, scored against the reference it holds.
for build in x86-64 armel; do run "$build" field-replay --replay-field ../x86-64/default.field.csv; done
same field-replay outputs.csv
same field-replay stdout
same field-replay summary.json
echo "identical${rate:+ at $rate Hz}: $compared scenarios ($(echo $scenarios)), a replay of a record and one of a field log: outputs, summaries, records and calibration files"
