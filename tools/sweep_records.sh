# What the sweeps read back after each run (sourced by fault_sweep.sh and
# power_cut_sweep.sh): the two files' records and whether each is whole, as the kit
# writes them. Relative paths, run from the sweep's scratch directory.
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
