#!/usr/bin/env bash
# Power-cut sweep: short compass_service runs on the virtual phone, the power failing
# once per run, at every call on a phone file inside each save the service makes (every
# STRIDE-th, rotating from save to save, with the first and the last always), right
# after each save, and at RANDOM moments between cycles. The cuts alternate between
# vphone's "powercut:N" (directory entries as last synced) and "powercut-entries:N" (the
# file system's journal had committed every entry change) from call to call and from
# save to save, so each step of a save meets both. Cases: a fresh phone (default and
# slow handling), a calibrated phone whose magnet changes the rough offset, and a phone
# restarted on a stored offset a few counts off, which its handling corrects. Every cut
# must:
#   - end the run where it happened (the power-cut status), never hang;
#   - leave the calibration file the record before the save the cut fell into or the
#     record after it (never a mix of two, never empty or cut short; values in range),
#     and the kit file whole or absent;
#   - keep a finished save (the record right after a save is the new one);
# and a restart from every record seen must load it and start no further from the true
# offset than those records were (each start's offset error is printed).
# A save is the span of file calls from "open /misc/sensor" (the directory, to lock it)
# to "close /misc/sensor" in the run's file-call log (VPHONE_FILE_LOG).
# Usage: power_cut_sweep.sh SERVICE "EMULATOR" WORK_DIR [STRIDE [RANDOM]]  (1 and 3)
set -euo pipefail
service=$(realpath "$1") emulator=$2 work=$3 stride=${4:-1} randoms=${5:-3}
fail() { echo "FAIL: $*" >&2; exit 1; }
read -r -a emu <<<"$emulator"
run() { "${emu[@]}" "$service" --quiet --rate 5 "$@"; }
source "$(dirname "$(realpath "$0")")/sweep_records.sh"
cut_status=86  # vphone::kPowerCutExitStatus

# Only ever empties its own scratch directory.
rm -rf "$work"
mkdir -p "$work"
cd "$work"

# The rough and magnetic offset a record, or a kit record, holds.
pair() { IFS=, read -r -a f <<<"$1"; echo "${f[0]},${f[1]},${f[2]},${f[6]},${f[7]},${f[8]}"; }
kit_pair() { IFS=, read -r -a f <<<"$1"; echo "${f[1]},${f[2]},${f[3]},${f[4]},${f[5]},${f[6]}"; }

# The calibrated phone of the restart cases, and the same with its offset 5 counts off.
make_phones

total_cuts=0 total_runs=0
sweep_case() { # NAME SCENARIO BASE_DIR
  local name=$1 scenario=$2 base=$3
  local log=$PWD/$name.log
  rm -rf "$name.count"
  cp -a "$base" "$name.count"
  VPHONE_FILE_LOG=$log VPHONE_CALL_COUNTS=$PWD/$name.counts run --sandbox "$name.count" --scenario "$scenario" \
    >/dev/null || fail "$name: the counting run failed"
  local final calls sleeps
  final=$(record "$name.count")
  calls=$(wc -l <"$log")
  sleeps=$(awk '$1 == "usleep" {print $2}' "$name.counts")
  # The saves: first and last file call of each.
  local -a starts=() ends=()
  mapfile -t starts < <(awk '$2 == "open" && $3 == "/misc/sensor" {print $1}' "$log")
  mapfile -t ends < <(awk '$2 == "close" && $3 == "/misc/sensor" {print $1}' "$log")
  [ "${#starts[@]}" -gt 0 ] && [ "${#starts[@]}" -eq "${#ends[@]}" ] || fail "$name: no saves found in the file-call log"
  # Where to cut: KIND:N
  local -a plans=()
  local k i
  local j kinds=(powercut powercut-entries)
  for k in "${!starts[@]}"; do
    plans+=("powercut:${starts[k]}")  # nothing of the save done: the record before it
    for ((i = starts[k] + 1; i <= ends[k]; i++)); do
      j=$((i - starts[k] + k))
      ((i == ends[k] || j % stride == 0)) && plans+=("${kinds[(j / stride + k) % 2]}:$i")
    done
    plans+=("powercut:$((ends[k] + 1))")
  done
  for ((i = 1; i <= randoms; i++)); do plans+=("powercut:$(((i * 7919 + 13) % sleeps + 1)):usleep"); done
  # Each cut on a copy of the base; what the files hold afterwards.
  local -A after=() kits=()
  local plan dir status now kit_now
  for plan in "${plans[@]}"; do
    [ -n "${after[$plan]:-}" ] && continue
    dir=$name.cut
    rm -rf "$dir"
    cp -a "$base" "$dir"
    set +e
    VPHONE_FAULTS=$plan timeout 120 "${emu[@]}" "$service" --quiet --rate 5 --sandbox "$dir" --scenario "$scenario" \
      >"$dir.out" 2>"$dir.err"
    status=$?
    set -e
    total_runs=$((total_runs + 1))
    [ $status -ne 124 ] || fail "$name, $plan: hung"
    [ $status -eq $cut_status ] || fail "$name, $plan: ended with status $status, not at the power cut: $(tail -2 "$dir.err")"
    now=$(record "$dir") kit_now=$(kit_record "$dir")
    whole "$now" || fail "$name, $plan: the calibration file is not a whole record: '$now'"
    kit_whole "$kit_now" || fail "$name, $plan: the kit file is not whole: '$kit_now'"
    after[$plan]=$now kits[$plan]=$kit_now
    if [ "$now" != "<none>" ] && [ ! -d "$name.record-$(echo "$now" | tr ',-' '_m')" ]; then
      cp -a "$dir" "$name.record-$(echo "$now" | tr ',-' '_m')"  # a sandbox holding this record
    fi
  done
  total_cuts=$((total_cuts + ${#plans[@]}))
  # Inside a save: the record before it or after it; after it: the new one, kept.
  local before new previous
  previous=$(record "$base")
  local -a records=("$previous")
  for k in "${!starts[@]}"; do
    before=${after[powercut:${starts[k]}]} new=${after[powercut:$((ends[k] + 1))]}
    [ "$before" = "$previous" ] || fail "$name: the file changed between saves: '$previous', then '$before'"
    [ "$new" != "$before" ] || fail "$name: save $((k + 1)) did not survive the power cut after it ('$new')"
    [ "$(kit_pair "${kits[powercut:$((ends[k] + 1))]}")" = "$(pair "$new")" ] ||
      fail "$name: after save $((k + 1)) the kit file belongs to another record"
    for plan in "${plans[@]}"; do
      [[ $plan =~ ^powercut(-entries)?:([0-9]+)$ ]] || continue
      i=${BASH_REMATCH[2]}
      ((i >= starts[k] && i <= ends[k])) || continue
      now=${after[$plan]}
      [ "$now" = "$before" ] || [ "$now" = "$new" ] ||
        fail "$name, $plan (save $((k + 1))): '$now' is neither the record before ('$before') nor after ('$new')"
    done
    records+=("$new")
    previous=$new
  done
  [ "$previous" = "$final" ] || fail "$name: the last save left '$previous', the uncut run '$final'"
  for plan in "${plans[@]}"; do
    [[ $plan =~ usleep$ ]] || continue
    printf '%s\n' "${records[@]}" | grep -xF -- "${after[$plan]}" >/dev/null ||
      fail "$name, $plan: '${after[$plan]}' is none of the saved records"
  done
  # A restart from every record: it loads, and its start is as far off as the record.
  local errors="" r d err
  for r in "${records[@]}"; do
    [ "$r" = "<none>" ] && continue
    d=$name.record-$(echo "$r" | tr ',-' '_m')
    [ -d "$d" ] || continue
    run --sandbox "$d" --scenario "$scenario" --outputs "$d.csv" >"$d.out" 2>"$d.err" || [ $? -eq 3 ] ||
      fail "$name: the restart from '$r' failed"
    grep -q "from the file" "$d.out" || fail "$name: the restart from '$r' did not take its rough offset"
    err=$(awk -F, 'NR == 2 {print $27}' "$d.csv")
    errors+=" ${err} uT"
    total_runs=$((total_runs + 1))
  done
  echo "power-cut sweep: $name: $calls file calls, ${#starts[@]} saves, ${#plans[@]} cuts; records ${#records[@]}, restarts start off by$errors"
  rm -rf "$name".*
}

sweep_case default-fresh default fresh
sweep_case slow-fresh slow fresh
sweep_case magnet-stored magnet stored
sweep_case restart-stale default stale
echo "power-cut sweep: $total_cuts cuts, $total_runs runs (stride $stride, $randoms random moments each) in $SECONDS s; every record whole, old or new, every finished save kept"
