#!/usr/bin/env bash
# Fault sweep: a short compass_service run, again and again, with one interposed call
# failing each time (vphone's fault plan), at each of its occurrences, or at SAMPLES
# of them spread evenly from the first to the last when there are more. The file calls
# (fopen ... rename) are swept a second time failing for good from each occurrence on,
# as a file system that fills up or turns read-only does. Every run must:
#   - end by itself (no hang: a time limit) and not crash (no signal);
#   - leave the calibration file as it was or as a complete new line of nine integers,
#     never missing, empty or cut short;
#   - report a failed save on standard error and exit non-zero for it; when a file call
#     failed, a file other than the fault-free run's final one counts as a failed save.
# Usage: fault_sweep.sh SERVICE "EMULATOR" WORK_DIR [SAMPLES]   (SAMPLES default 40)
set -euo pipefail
service=$(realpath "$1") emulator=$2 work=$3 samples=${4:-40}
fail() { echo "FAIL: $*" >&2; exit 1; }
read -r -a emu <<<"$emulator"
run() { "${emu[@]}" "$service" "$@"; }
run_args=(--quiet --scenario default --rate 5)

# Only ever empties its own scratch directory.
rm -rf "$work"
mkdir -p "$work"
cd "$work"

# The phone before the sweep: a calibrated sandbox, so every run starts from a stored
# file and saves a newer offset over it.
run "${run_args[@]}" --fresh --sandbox base >/dev/null || fail "the base run failed"
cfg=misc/sensor/kmxc_orvane.cfg
old=$(cat "base/$cfg")
cp -a base base-count
VPHONE_CALL_COUNTS=$PWD/counts run "${run_args[@]}" --sandbox base-count >/dev/null || fail "the counting run failed"
new=$(cat "base-count/$cfg")

runs=0 failed_saves=0 nonzero=0
while read -r call count; do
  [ "$count" -gt 0 ] || continue
  if [ "$count" -le "$samples" ]; then occurrences=$(seq 1 "$count")
  else occurrences=$(for ((k = 0; k < samples; k++)); do echo $((1 + k * (count - 1) / (samples - 1))); done | uniq); fi
  plans=()
  for n in $occurrences; do plans+=("$call:$n:EIO"); done
  case $call in
    fopen | fgets | fprintf | fclose | access | chown | chmod | rename)
      for n in $occurrences; do plans+=("$call:$n:ENOSPC:all"); done ;;
  esac
  for plan in "${plans[@]}"; do
    dir=run-${plan//:/-}
    cp -a base "$dir"
    set +e
    timeout 120 "${emu[@]}" "$service" "${run_args[@]}" --sandbox "$dir" --fault "$plan" >"$dir.out" 2>"$dir.err"
    status=$?
    set -e
    what="$plan, $count calls (exit $status)"
    [ $status -ne 124 ] || fail "$what: hung"
    [ $status -lt 128 ] || fail "$what: crashed: $(tail -3 "$dir.err")"
    [ -s "$dir/$cfg" ] || fail "$what: the calibration file is missing or empty"
    now=$(cat "$dir/$cfg")
    [ "$now" = "$old" ] || [[ $now =~ ^-?[0-9]+(,-?[0-9]+){8}$ ]] || fail "$what: the calibration file is cut short: '$now'"
    saves=$(sed -n 's/^ *saves *[0-9]* done, \([0-9]*\) failed.*/\1/p' "$dir.out")
    if [ "${saves:-0}" -gt 0 ]; then
      failed_saves=$((failed_saves + 1))
      [ $status -ne 0 ] || fail "$what: $saves failed saves, but exit status 0"
      grep -q 'compass_service: ' "$dir.err" || fail "$what: failed saves not reported on standard error"
    fi
    # A failing file call does not change what the chips deliver: the run ends with the
    # fault-free run's file unless a save failed, and then it must say so.
    case $call in open | close | read | write | ioctl | usleep) ;; *)
      [ "$now" = "$new" ] || [ $status -ne 0 ] ||
        fail "$what: the file kept '$now', not the new '$new', and no failed save was reported" ;;
    esac
    [ $status -eq 0 ] || { nonzero=$((nonzero + 1)); [ -s "$dir.err" ] || fail "$what: non-zero exit without a message"; }
    rm -rf "$dir" "$dir.out" "$dir.err"
    runs=$((runs + 1))
  done
done <counts
echo "fault sweep: $runs runs ($(tr '\n' ' ' <counts| sed 's/ $//')); $failed_saves with failed saves, $nonzero with a non-zero exit; the calibration file whole in every one"
