#!/usr/bin/env bash
# Whole cycles on armel: the instructions each kmxc_service_cycle call executes in the
# demo, counted exactly from qemu-arm's log of every executed instruction (one
# translation block per instruction, as count.sh counts its cases). The virtual phone's
# own code, and whatever it calls until control is back in the kit or the library,
# stands for the kernel driver and the chips and is left out; the demo's world runs
# between cycles. What is counted is what a phone runs: the kit, the library, and the C
# library, maths and soft-float routines they call. Prints the distribution over the
# run's cycles, the dearest ones, and each part's share per cycle.
# Usage: bench/icount/cycles.sh [ARMEL_BUILD_DIR [compass_service options...]]
#   (default: build-armel, --scenario default --rate 10; --fresh --quiet are added)
# A minute or two for the default scenario: the log is streamed, never stored.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build-armel}
[ $# -gt 0 ] && shift
args=("$@")
[ ${#args[@]} -gt 0 ] || args=(--scenario default --rate 10)
prog=$build/tools/compass_service
kit=$build/service/libkmxc_service.so
for f in "$prog" "$kit"; do [ -e "$f" ] || { echo "cycles.sh: no $f (build the armel tree first)" >&2; exit 1; }; done
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
run() {
  QEMU_SET_ENV=LD_BIND_NOW=1 qemu-arm -L /usr/arm-linux-gnueabi "$@" "$prog" "${args[@]}" --fresh --quiet \
    --sandbox "$tmp/sandbox" >/dev/null
}

# Where each shared library's code is: its file's first executable mapping, from qemu's
# system-call log (the same addresses in the counting run: the same program, arguments
# and environment).
QEMU_STRACE=1 run 2>"$tmp/strace" || { tail -n 3 "$tmp/strace" >&2; exit 1; }
ranges=$(awk '
  /openat\(/ && / = [0-9]+$/ { split($0, q, "\""); n = split(q[2], p, "/"); name = p[n]; next }
  /mmap2\(NULL,/ && /PROT_EXEC/ && name != "" { split($0, f, ","); print name, $NF, f[2]; name = "" }' "$tmp/strace" |
  while read -r name addr size; do printf '%s %08x %08x\n' "$name" $((addr)) $((addr + size)); done)
[ -n "$ranges" ] || { echo "cycles.sh: no library mappings in qemu's log" >&2; exit 1; }
base=$(awk '$1 == "libkmxc_service.so" { print $2 }' <<<"$ranges")
entry=$(arm-linux-gnueabi-nm -D "$kit" | awk '$3 == "kmxc_service_cycle" { print $1 }')
if [ -z "$base" ] || [ -z "$entry" ]; then echo "cycles.sh: kmxc_service_cycle not found" >&2; exit 1; fi
entry=$(printf '%08x' $((0x$base + 0x$entry)))

mkfifo "$tmp/log"
awk -v entry="x$entry" -v ranges="$ranges" -f /dev/stdin "$tmp/log" >"$tmp/out" <<'AWK' &
BEGIN {
  n = split(ranges, r, "\n")
  for (i = 1; i <= n; i++) {
    split(r[i], f, " ")
    lo[i] = "x" f[2]; hi[i] = "x" f[3]  # as strings: equal-width hex compares in order
    part[i] = f[1] ~ /^libkmxc_service/ ? "kit" : f[1] ~ /^libkmxc_orvane/ ? "library" : \
              f[1] ~ /^libkmxc_vphone/ ? "phone" : f[1] ~ /^libgcc_s/ ? "soft-float routines (libgcc_s)" : \
              f[1] ~ /^libm\./ ? "maths (libm)" : "C and C++ runtime"
  }
}
function part_of(pc,   i) {
  for (i = 1; i <= n; i++) if (pc >= lo[i] && pc < hi[i]) return part[i]
  return pc ~ /^xffff0/ ? "kernel helpers" : ""
}
{
  if (split($0, a, "/") < 3) next
  pc = "x" a[2]
  if (!inside) { if (pc == entry) { inside = 1; c = 0; in_phone = 0; ++k } ; if (!inside) next }
  p = part_of(pc)
  if (p == "") { if (!in_phone) { inside = 0; cycle[k] = c } ; next }  # back in the caller
  if (p == "phone") { in_phone = 1; next }
  if (in_phone) { if (p == "kit" || p == "library") in_phone = 0; else next }
  share[p]++; c++
}
END {
  if (k == 0) { print "no cycle seen"; exit 1 }
  if (inside) cycle[k] = c
  for (i = 1; i <= k; i++) s[i] = cycle[i]
  for (i = 2; i <= k; i++) { v = s[i]; j = i - 1; while (j > 0 && s[j] > v) { s[j + 1] = s[j]; j-- } ; s[j + 1] = v }
  for (i = 1; i <= k; i++) total += s[i]
  printf "%d cycles: mean %d, median %d, 90th percentile %d, 99th %d, most %d\n", k, total / k, s[int(k / 2) + 1], \
    s[int(k * 0.9) + (k < 10)], s[int(k * 0.99) + (k < 100)], s[k]
  printf "the dearest:"; for (i = k; i > k - 5 && i > 0; i--) printf " %d", s[i]; printf "\n"
  for (p in share) printf "  %-32s %7d a cycle\n", p, share[p] / k
}
AWK
run -singlestep -d exec,nochain -D "$tmp/log" || true
wait
cat "$tmp/out"
