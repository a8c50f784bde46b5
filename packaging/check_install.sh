#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds the two consumers against that
# tree only (one through pkg-config, one through find_package) and runs both, and the
# installed compass_service, on the installed virtual phone. Under a cross build the
# programs run through the emulator.
# Usage: check_install.sh BUILD_DIR WORK_DIR LIBDIR VERSION CC "CFLAGS" "TOOLCHAIN" "EMULATOR" PKG_CONFIG
set -euo pipefail
build=$1 work=$2 libdir=$3 version=$4 cc=$5 cflags=$6 toolchain=$7 emulator=$8 pkg_config=$9
consumers=$(cd "$(dirname "$0")" && pwd)/consumers

fail() { echo "FAIL: $*" >&2; exit 1; }

# Only ever empties its own scratch directory.
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "cmake --install"; }

preload=$prefix/$libdir/kmxc_orvane/libkmxc_vphone.so
[ -f "$preload" ] || fail "no preload library at $preload"

# Runs a program of the target architecture on the virtual phone with the installed
# preload library. qemu-user is itself a host program, so the preload goes to the
# guest through QEMU_SET_ENV rather than the host loader's LD_PRELOAD.
emu=()
[ -n "$emulator" ] && IFS=';' read -r -a emu <<<"$emulator"
run_target() { "${emu[@]}" "$@"; }
run_on_phone() {
  local root=$1; shift
  if [ ${#emu[@]} -gt 0 ] && [[ $(basename "${emu[0]}") == qemu-* ]]; then
    VPHONE_ROOT=$root VPHONE_CHIPS=kmxc,smb380 QEMU_SET_ENV=LD_PRELOAD=$preload "${emu[@]}" "$@"
  else
    VPHONE_ROOT=$root VPHONE_CHIPS=kmxc,smb380 LD_PRELOAD=$preload "${emu[@]}" "$@"
  fi
}

expect_run() { # NAME PROGRAM PATTERN: runs it on a fresh phone, checks its line and the calibration file
  local name=$1 program=$2 pattern=$3 out
  out=$(run_on_phone "$work/phone-$name" "$program") || fail "$name exited with $?: $out"
  echo "$name: $out"
  [[ $out =~ $pattern ]] || fail "$name: unexpected output"
  [ -s "$work/phone-$name/misc/sensor/kmxc_orvane.cfg" ] || fail "$name: no calibration file on the phone"
}

# 1. pkg-config, with nothing but the installed tree on its path.
export PKG_CONFIG_LIBDIR=$prefix/$libdir/pkgconfig PKG_CONFIG_PATH=
pc_version=$("$pkg_config" --modversion kmxc_orvane) || fail "pkg-config does not find kmxc_orvane"
[ "$pc_version" = "$version" ] || fail "kmxc_orvane.pc says version $pc_version, want $version"
pc_libdir=$("$pkg_config" --variable=libdir kmxc_orvane)
[ "$pc_libdir" = "$prefix/$libdir" ] || fail "kmxc_orvane.pc libdir is $pc_libdir, want $prefix/$libdir"
read -r -a pc_flags <<<"$("$pkg_config" --cflags --libs kmxc_orvane)"
read -r -a extra <<<"$cflags"
"$cc" "${extra[@]}" -std=c11 -Wall -Wextra -Werror -pedantic -o "$work/consumer_pkgconfig" \
  "$consumers/consumer.c" "${pc_flags[@]}" -Wl,-rpath,"$pc_libdir" || fail "pkg-config consumer does not build"
library_line='^start 0 cycles 5 .*stored 0 '
kit_line='^kit start KMXC_SERVICE_OK measured 5 heading -?[0-9]+ cycle KMXC_SERVICE_OK stop KMXC_SERVICE_OK$'
expect_run pkgconfig "$work/consumer_pkgconfig" "$library_line"
# The service kit, when the tree has one: its .pc brings the library's flags along.
have_kit=no
if [ -f "$prefix/$libdir/libkmxc_service.so" ]; then
  have_kit=yes
  read -r -a kit_flags <<<"$("$pkg_config" --cflags --libs kmxc_service)" || fail "kmxc_service.pc does not resolve"
  "$cc" "${extra[@]}" -std=c11 -Wall -Wextra -Werror -pedantic -o "$work/consumer_kit_pkgconfig" \
    "$consumers/consumer_kit.c" "${kit_flags[@]}" -Wl,-rpath,"$pc_libdir" || fail "pkg-config kit consumer does not build"
  expect_run kit-pkgconfig "$work/consumer_kit_pkgconfig" "$kit_line"
fi

# 2. find_package, with only the scratch prefix to search.
cmake_args=(-S "$consumers/find_package" -B "$work/consumer-cmake" -G Ninja -DCMAKE_C_COMPILER="$cc"
  -DCMAKE_C_FLAGS="$cflags" -DCMAKE_PREFIX_PATH="$prefix" -DKMXC_EXPECT_VERSION="$version" -DKMXC_EXPECT_KIT=$have_kit
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
[ -n "$toolchain" ] && cmake_args+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain")
cmake "${cmake_args[@]}" >"$work/consumer-cmake.log" 2>&1 || { cat "$work/consumer-cmake.log"; fail "find_package consumer does not configure"; }
cmake --build "$work/consumer-cmake" >>"$work/consumer-cmake.log" 2>&1 || { cat "$work/consumer-cmake.log"; fail "find_package consumer does not build"; }
expect_run find_package "$work/consumer-cmake/consumer_cmake" "$library_line"
[ $have_kit = no ] || expect_run kit-find_package "$work/consumer-cmake/consumer_kit_cmake" "$kit_line"

# 3. The installed tool finds its libraries through its RUNPATH alone and reports the
#    project version.
tool_version=$(run_target "$prefix/bin/compass_service" --version) || fail "compass_service --version failed"
echo "compass_service --version: $tool_version"
[[ $tool_version == *" $version"* ]] || fail "compass_service reports '$tool_version', want version $version"
pair_usage=$(run_target "$prefix/bin/field_log_pair" --help) || fail "field_log_pair --help failed"
[[ $pair_usage == "usage: field_log_pair "* ]] || fail "field_log_pair --help printed '$pair_usage'"
echo "install test passed: $prefix"
