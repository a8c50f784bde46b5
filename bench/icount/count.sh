#!/usr/bin/env bash
# Exact instruction counts of the cases in icount_cases.cpp, on x86-64 and on armel.
#   x86-64: valgrind's callgrind, the inclusive count of each case function.
#   armel:  qemu-arm with one instruction per translation block and no chaining
#           (-singlestep -d exec,nochain), which logs every instruction executed; the
#           count is the lines between the two icount_mark() calls around each case.
# Both subtract the empty case, so a figure is the case's own work. Symbols are bound
# at load (LD_BIND_NOW), so no count includes the dynamic linker's first-call work.
# Usage: bench/icount/count.sh [X86_BUILD_DIR [ARMEL_BUILD_DIR]]   (default build, build-armel)
set -euo pipefail
cd "$(dirname "$0")/../.."
x86=${1:-build}/bench/icount/icount_cases
arm=${2:-build-armel}/bench/icount/icount_cases
for p in "$x86" "$arm"; do [ -x "$p" ] || { echo "count.sh: no $p (build target icount_cases)" >&2; exit 1; }; done
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cases=(empty fit cycle double kasa_double kasa_float offer_still offer_refused coverage spread sphere ellipsoid circle
  agreement offer_joins kit_cycle kit_sphere kit_shown kit_share_columns kit_share kit_sphere_judge kit_ellipsoid
  kit_judge kit_library_fit kit_rules kit_planar_fit kit_planar_judge kit_planar_adopt kit_mount kit_motion)

# x86-64
LD_BIND_NOW=1 valgrind --tool=callgrind --callgrind-out-file="$tmp/cg" "$x86" >/dev/null 2>"$tmp/vg" ||
  { cat "$tmp/vg" >&2; exit 1; }
declare -A x86_count arm_count
# A case's own line is its largest: code inlined into it is listed under its source file too.
while read -r ir name; do if (( ir > ${x86_count[$name]:-0} )); then x86_count[$name]=$ir; fi; done < <(
  callgrind_annotate --inclusive=yes --threshold=100 "$tmp/cg" |
    sed -n 's/^ *\([0-9,]*\) .*icount_case_\([a-z_]*\)[ ].*/\1 \2/p;s/^ *\([0-9,]*\) .*icount_case_\([a-z_]*\)$/\1 \2/p' | tr -d ,)

# armel
mark=$(arm-linux-gnueabi-nm "$arm" | awk '/ icount_mark$/{print $1}')
QEMU_SET_ENV=LD_BIND_NOW=1 qemu-arm -L /usr/arm-linux-gnueabi -singlestep -d exec,nochain -D "$tmp/trace" "$arm" >/dev/null
mapfile -t lines < <(grep -n "/$mark/" "$tmp/trace" | cut -d: -f1)
[ ${#lines[@]} -eq $((2 * ${#cases[@]})) ] || { echo "count.sh: expected $((2 * ${#cases[@]})) marks, found ${#lines[@]}" >&2; exit 1; }
for i in "${!cases[@]}"; do arm_count[${cases[$i]}]=$((lines[2 * i + 1] - lines[2 * i])); done

thousands() { sed ':a;s/\B[0-9]\{3\}\>/,&/;ta' <<<"$1"; }
label() {
  case $1 in
    fit) echo "calibration: the fitting call (16th KmxAxesMsCalibUpdate of a batch)" ;;
    cycle) echo "a non-fitting cycle (correction, calibration sample, integer heading)" ;;
    double) echo "the double-precision functions (gravity, field, matrix, Euler)" ;;
    kasa_double) echo "plain algebraic (Kasa) sphere fit, double" ;;
    kasa_float) echo "plain algebraic (Kasa) sphere fit, float" ;;
    offer_still) echo "kit store, full (32): a still phone's sample refused" ;;
    offer_refused) echo "kit store, full: the longest refusal (every sample tried)" ;;
    offer_joins) echo "kit store, full: a sample that widens it, replacing one" ;;
    coverage) echo "kit store: coverage cells about a centre" ;;
    spread) echo "kit store: covariance eigenvalue spread" ;;
    sphere) echo "kit sphere fit, full store" ;;
    ellipsoid) echo "kit ellipsoid fit, full store" ;;
    circle) echo "kit circle fit, full store" ;;
    agreement) echo "kit store agreement under offset and W (strengths, dip)" ;;
    kit_cycle) echo "kit: added to a non-fitting cycle (W, noise meter, store offer refused, event)" ;;
    kit_sphere) echo "kit: a sphere step (the corrected store and its fit)" ;;
    kit_share_columns) echo "kit: a fit's soft-iron share, first step (what D does to the centre)" ;;
    kit_share) echo "kit: a fit's soft-iron share, second step (what the samples tell of D)" ;;
    kit_sphere_judge) echo "kit: a sphere fit's judgement (covariance, agreement, publishing)" ;;
    kit_ellipsoid) echo "kit: an ellipsoid step (fit of the full store)" ;;
    kit_shown) echo "kit: the soft iron the store shows (its fit, the share in use scaled)" ;;
    kit_library_fit) echo "kit: a library fit's judgement (recent samples' covariance and share)" ;;
    kit_judge) echo "kit: an ellipsoid's judgement and adoption" ;;
    kit_rules) echo "kit: the vehicle rules of every cycle (steady tilt, anomaly, hysteresis, settling)" ;;
    kit_planar_fit) echo "kit: a planar step (circle fit of a mount's full store)" ;;
    kit_planar_judge) echo "kit: a planar judgement (arc, reference circle, sphere, strengths)" ;;
    kit_planar_adopt) echo "kit: a planar estimate's adoption (against the offset in use)" ;;
    kit_mount) echo "kit: a mounted phone's every cycle (gravity's mean and recent, circle and angle checks)" ;;
    kit_motion) echo "kit: the vehicle watch of every cycle (field still, gravity's angle, the turn it implies)" ;;
  esac
}
printf '| %-72s | %9s | %9s |\n' "instructions (16 samples for the library's fit)" "x86-64" "armel"
printf '|%s|%s|%s|\n' "$(printf -- '-%.0s' {1..74})" "$(printf -- '-%.0s' {1..10}):" "$(printf -- '-%.0s' {1..10}):"
for c in "${cases[@]:1}"; do
  printf '| %-72s | %9s | %9s |\n' "$(label "$c")" \
    "$(thousands $((x86_count[$c] - x86_count[empty])))" "$(thousands $((arm_count[$c] - arm_count[empty])))"
done
