#!/usr/bin/env bash
# Fault sweep: short compass_service runs, again and again, with one interposed call
# failing each time (vphone's fault plan), at each of its occurrences, or at SAMPLES of
# them spread evenly from the first to the last when there are more. The file calls are
# swept a second time failing for good from GOOD of their occurrences on, as a file
# system that fills up or turns read-only does. Cases, each a handling that saves:
#   restart-stale   a phone restarted on a stored offset 5 counts off, which its
#                   handling corrects (every call kind, the bus's too)
#   default-fresh   a new phone's first run
#   slow-fresh      a new phone turned slowly by hand
#   magnet-stored   a calibrated phone whose magnet moves the rough offset
# (the last three: the calls a save makes). Every run must:
#   - end by itself (no hang: a time limit) and not crash (no signal);
#   - leave the calibration file a whole record, every value in range (never empty or
#     cut short), and the kit file whole or absent; when a file call failed (the chips
#     deliver what they did without it), the old record or one the fault-free run saved,
#     never a mix of two;
#   - report a failed save on standard error and exit non-zero for it; when a file call
#     failed, a file other than the fault-free run's final one counts as a failed save.
# Usage: fault_sweep.sh SERVICE "EMULATOR" WORK_DIR [SAMPLES [GOOD [CASES]]]
#   (SAMPLES default 20, GOOD 3, CASES "restart-stale default-fresh slow-fresh magnet-stored")
set -euo pipefail
service=$(realpath "$1") emulator=$2 work=$3 samples=${4:-20} good=${5:-3}
cases=${6:-restart-stale default-fresh slow-fresh magnet-stored}
fail() { echo "FAIL: $*" >&2; exit 1; }
read -r -a emu <<<"$emulator"
run() { "${emu[@]}" "$service" --quiet --rate 5 "$@"; }
source "$(dirname "$(realpath "$0")")/sweep_records.sh"

# Only ever empties its own scratch directory.
rm -rf "$work"
mkdir -p "$work"
cd "$work"

# n occurrences of count, spread evenly from the first to the last.
spread() { # COUNT N
  if [ "$1" -le "$2" ]; then seq 1 "$1"
  elif [ "$2" -eq 1 ]; then echo 1
  else for ((k = 0; k < $2; k++)); do echo $((1 + k * ($1 - 1) / ($2 - 1))); done | uniq; fi
}

# The phones before the sweep: new, calibrated, and calibrated with an offset 5 counts
# off (a handling that corrects it saves).
make_phones

runs=0 failed_saves=0 nonzero=0 summary=""
sweep_case() { # NAME SCENARIO BASE KINDS
  local name=$1 scenario=$2 base=$3 kinds=$4
  rm -rf "$name.count"
  cp -a "$base" "$name.count"
  VPHONE_CALL_COUNTS=$PWD/$name.counts VPHONE_FILE_LOG=$PWD/$name.log run --sandbox "$name.count" \
    --scenario "$scenario" >/dev/null || fail "$name: the fault-free run failed"
  local old new
  old=$(record "$base") new=$(record "$name.count")
  # The records the fault-free run saved: each as its rename made it (the power cut
  # right after a rename of the calibration file, the journal committed).
  local -a saved=("$old")
  # A phone without a file after a run whose every save failed gets the library's
  # default line from the demo's summary, which reads the file through the library.
  [ "$old" = "<none>" ] && saved+=("255,255,255,0,0,0,2147483647,2147483647,2147483647")
  local r
  for r in $(awk '$2 == "rename" && $3 == "/misc/sensor/kmxc_orvane.cfg" {print $1}' "$name.log"); do
    rm -rf "$name.rec"
    cp -a "$base" "$name.rec"
    VPHONE_FAULTS=powercut-entries:$((r + 1)) run --sandbox "$name.rec" --scenario "$scenario" >/dev/null 2>&1 || true
    saved+=("$(record "$name.rec")")
  done
  local call count plan dir status what now n
  while read -r call count; do
    [ "$count" -gt 0 ] && [[ " $kinds " == *" $call "* ]] || continue
    local -a plans=()
    for n in $(spread "$count" "$samples"); do plans+=("$call:$n:EIO"); done
    case $call in
      open | close | read | write | ioctl | usleep) ;;
      *) for n in $(spread "$count" "$good"); do plans+=("$call:$n:ENOSPC:all"); done ;;
    esac
    for plan in "${plans[@]}"; do
      dir=$name.run
      rm -rf "$dir"
      cp -a "$base" "$dir"
      set +e
      timeout 120 "${emu[@]}" "$service" --quiet --rate 5 --scenario "$scenario" --sandbox "$dir" --fault "$plan" \
        >"$dir.out" 2>"$dir.err"
      status=$?
      set -e
      what="$name, $plan, $count calls (exit $status)"
      [ $status -ne 124 ] || fail "$what: hung"
      [ $status -lt 128 ] || fail "$what: crashed: $(tail -3 "$dir.err")"
      now=$(record "$dir")
      whole "$now" || fail "$what: the calibration file is not a whole record: '$now'"
      case $call in open | close | read | write | ioctl | usleep) ;; *)
        printf '%s\n' "${saved[@]}" | grep -xF -- "$now" >/dev/null ||
          fail "$what: the calibration file holds '$now', neither the old record nor one the fault-free run saved ($(printf "'%s' " "${saved[@]}")from its renames at file calls $(awk '$2 == "rename" {printf "%s ", $1}' "$name.log"))" ;;
      esac
      kit_whole "$(kit_record "$dir")" || fail "$what: the kit file is not whole: '$(kit_record "$dir")'"
      local fails
      fails=$(sed -n 's/^ *saves *[0-9]* done, \([0-9]*\) failed.*/\1/p' "$dir.out")
      if [ "${fails:-0}" -gt 0 ]; then
        failed_saves=$((failed_saves + 1))
        [ $status -ne 0 ] || fail "$what: $fails failed saves, but exit status 0"
        grep -q 'compass_service: ' "$dir.err" || fail "$what: failed saves not reported on standard error"
      fi
      # A failing file call does not change what the chips deliver: the run ends with the
      # fault-free run's file unless a save failed, and then it must say so.
      case $call in open | close | read | write | ioctl | usleep) ;; *)
        [ "$now" = "$new" ] || [ $status -ne 0 ] ||
          fail "$what: the file kept '$now', not the new '$new', and no failed save was reported" ;;
      esac
      [ $status -eq 0 ] || { nonzero=$((nonzero + 1)); [ -s "$dir.err" ] || fail "$what: non-zero exit without a message"; }
      runs=$((runs + 1))
    done
  done <"$name.counts"
  summary+="; $name $(awk '$2 > 0 {printf "%s%s %s", sep, $1, $2; sep=" "}' "$name.counts")"
  rm -rf "$name".*
}

file_kinds="open close fopen fgets fprintf fclose access chown chmod rename unlink fsync fdatasync flock fchmod fchown"
save_kinds="open close access rename unlink fsync fdatasync flock fchmod fchown"
for c in $cases; do
  case $c in
    restart-stale) sweep_case "$c" default stale "read write ioctl usleep $file_kinds" ;;
    default-fresh) sweep_case "$c" default fresh "$save_kinds" ;;
    slow-fresh) sweep_case "$c" slow fresh "$save_kinds" ;;
    magnet-stored) sweep_case "$c" magnet stored "$save_kinds" ;;
    *) fail "unknown case '$c'" ;;
  esac
done
echo "fault sweep: $runs runs in $SECONDS s (samples $samples, for good $good${summary}); $failed_saves with failed saves, $nonzero with a non-zero exit; the calibration file whole and never a mix in every one"
