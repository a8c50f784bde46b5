#!/usr/bin/env bash
# Runs the example service at RATE Hz for SECONDS and checks what its loop promises: it
# ends with status 0, ran RATE x SECONDS cycles on schedule (none late, the last one
# (cycles - 1) / RATE s after the first) and reached a trusted accuracy (2 medium or
# 3 high) within LIMIT seconds of its first cycle. The times are the program's own, from CLOCK_MONOTONIC.
# Usage: check_example.sh RATE SECONDS LIMIT COMMAND...   (RATE and SECONDS are
# appended to COMMAND, which ends with the example program)
set -uo pipefail
rate=$1 seconds=$2 limit=$3
shift 3

fail() { echo "FAIL: $*" >&2; exit 1; }

out=$("$@" "$rate" "$seconds" 2>&1)
status=$?
echo "$out" | grep -E '^(started|stopped)|accuracy [0-9] \(|new 3-D|example_service:'
[ $status -eq 0 ] || fail "the example ended with status $status"

trusted=$(awk '/^t +[0-9.]+ s +accuracy [23] \((medium|high)\)$/ {print $2; exit}' <<<"$out")
[ -n "$trusted" ] || fail "accuracy 2 or 3 never reached"
awk -v t="$trusted" -v limit="$limit" 'BEGIN {exit !(t <= limit)}' ||
  fail "accuracy 2 or 3 at $trusted s, later than $limit s"

cycles=$((rate * seconds))
span=$(awk -v n=$cycles -v r="$rate" 'BEGIN {printf "%.2f", (n - 1) / r}')
grep -q "^stopped: $cycles cycles (0 late) over $span s," <<<"$out" ||
  fail "want $cycles cycles, none late, over $span s"
echo "accuracy 2 or 3 at $trusted s (limit $limit s); $cycles cycles over $span s"
