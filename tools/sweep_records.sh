# What the sweeps share (sourced by fault_sweep.sh and power_cut_sweep.sh): the two
# files' records read back after each run and whether each is whole, as the kit writes
# them, and the phones they start from. Relative paths: run from the sweep's scratch
# directory.
cfg=misc/sensor/kmxc_orvane.cfg kit=misc/sensor/kmxc_orvane-kit.cfg

record() { if [ -f "$1/$cfg" ]; then cat "$1/$cfg"; else echo "<none>"; fi; }
kit_record() { if [ -f "$1/$kit" ]; then cat "$1/$kit"; else echo "<none>"; fi; }
# A complete record with every value in range (what the kit writes), or "<none>".
whole() {
  [ "$1" = "<none>" ] && return 0
  [[ $1 =~ ^-?[0-9]+(,-?[0-9]+){8}$ ]] || return 1
  local f v
  IFS=, read -r -a f <<<"$1"
  if [ "${f[0]},${f[1]},${f[2]}" != 255,255,255 ]; then
    for v in "${f[@]:0:3}"; do ((v >= 0 && v <= 31)) || return 1; done
  fi
  for v in "${f[@]:3:3}"; do ((v >= -1024 && v <= 1024)) || return 1; done
  [ "${f[6]},${f[7]},${f[8]}" = 2147483647,2147483647,2147483647 ] && return 0
  for v in "${f[@]:6:3}"; do ((v >= -16384 && v <= 16384)) || return 1; done
}
# The kit's line: version 1 and 18 integers, or "<none>".
kit_whole() { [ "$1" = "<none>" ] || [[ $1 =~ ^1(,-?[0-9]+){18}$ ]]; }

# The phones the sweeps start from, in the current directory: fresh (new), stored
# (calibrated by a default run) and stale (the same with its offset 5 counts off, which
# a handling that corrects it saves). Uses the caller's run and fail.
make_phones() {
  mkdir fresh
  cp -a fresh stored
  run --sandbox stored --scenario default >/dev/null || fail "the calibrating run failed"
  cp -a stored stale
  local -a f
  IFS=, read -r -a f <"stored/$cfg" || true  # one line, no line end
  echo -n "${f[0]},${f[1]},${f[2]},${f[3]},${f[4]},${f[5]},$((f[6] + 5)),${f[7]},${f[8]}" >"stale/$cfg"
}
