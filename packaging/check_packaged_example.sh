#!/usr/bin/env bash
# What a new user with only the packages has: unpacks this build's three packages into
# a scratch root, checks that the installed documentation names installed paths and
# names only, builds the shipped example service from the documentation folder with
# `pkg-config kmxc_service` against the unpacked headers and libraries, and runs it on
# the shipped virtual phone and moving world (default scenario, 50 Hz), which must bring
# it to accuracy 2 or 3 within 12 s of virtual time (CHECKER, service/check_example.sh).
# No build tree is involved. In a cross build the program is built by the cross compiler
# and run under the emulator with the unpacked root as its -L prefix, its libraries and
# preloads named by their installed paths; liblog comes from the machine's package.
# Usage: check_packaged_example.sh DEB_DIR WORK_DIR DEB_ARCH DEB_VERSION MULTIARCH CC "CFLAGS" "EMULATOR" PKG_CONFIG CHECKER
set -euo pipefail
debs=$1 work=$2 arch=$3 version=$4 multiarch=$5 cc=$6 cflags=$7 emulator=$8 pkg_config=$9 checker=${10}

fail() { echo "FAIL: $*" >&2; exit 1; }

# Only ever empties its own scratch directory.
rm -rf "$work"
mkdir -p "$work"
root=$work/root
for name in libkmxc-orvane libkmxc-orvane-dev kmxc-orvane-tools; do
  deb=$debs/${name}_${version}_${arch}.deb
  [ -f "$deb" ] || fail "no package $deb"
  dpkg-deb -x "$deb" "$root"
done
doc=/usr/share/doc/kmxc-orvane-tools
preloads=/usr/lib/$multiarch/kmxc_orvane
[ -f "$root$doc/example_service.c" ] || fail "the tools package has no $doc/example_service.c"

# 1. The installed documentation names what the packages install: no build tree, no
#    source-only names, and every /usr path it gives exists.
if grep -nE 'build/|build-armel|kmxc_add_phone_test|vphone\.h|phone_fixture|vphone/scene|\.cpp\b|CMakeLists|run\.sh|fault_sweep|check_[a-z_]+\.sh' \
  "$root$doc"/*; then
  fail "the installed documentation above names the build tree or source-only files"
fi
missing=0
while IFS= read -r path; do
  path=${path//<multiarch>/$multiarch}
  [[ $path == *'<'* ]] && continue
  # Another architecture's paths (an example for armel) are that package's to hold.
  [[ $path =~ ^/usr/lib/([a-z0-9_]+-linux-[a-z0-9_]+)/ && ${BASH_REMATCH[1]} != "$multiarch" ]] && continue
  [ -e "$root$path" ] || { echo "FAIL: the documentation names $path, which no package installs" >&2; missing=1; }
done < <(grep -ohE '/usr/[A-Za-z0-9_./<>-]*[A-Za-z0-9_>]' "$root$doc"/* | sort -u)
[ $missing -eq 0 ] || exit 1
echo "installed documentation: $(ls "$root$doc" | tr '\n' ' ')"

# 2. Build the example as its comment says, pkg-config seeing only the unpacked root.
export PKG_CONFIG_SYSROOT_DIR=$root PKG_CONFIG_LIBDIR=$root/usr/lib/$multiarch/pkgconfig PKG_CONFIG_PATH=
pc_version=$("$pkg_config" --modversion kmxc_service) || fail "pkg-config does not find kmxc_service"
[ "$pc_version" = "${version%-*}" ] || fail "kmxc_service.pc says version $pc_version, want ${version%-*}"
read -r -a pc_flags <<<"$("$pkg_config" --cflags --libs kmxc_service)"
read -r -a extra <<<"$cflags"
"$cc" "${extra[@]}" -std=c11 -Wall -Wextra -Werror -pedantic -o "$work/example_service" "$root$doc/example_service.c" \
  "${pc_flags[@]}" || fail "the shipped example does not build with pkg-config kmxc_service"

# 3. Run it on the shipped phone.
phone=(VPHONE_ROOT="$work/phone" VPHONE_SCENARIO=default)
emu=()
[ -n "$emulator" ] && IFS=';' read -r -a emu <<<"$emulator"
if [ ${#emu[@]} -gt 0 ]; then
  # The emulator's -L prefix is the unpacked root: the program finds the packages' files
  # at their installed paths (the C library falls through to the machine's).
  run=(env "${phone[@]}" "QEMU_SET_ENV=LD_PRELOAD=$preloads/libkmxc_vphone.so:$preloads/libkmxc_vphone_world.so"
    "${emu[0]}" -L "$root" "$work/example_service")
else
  run=(env "${phone[@]}" LD_LIBRARY_PATH="$root/usr/lib/$multiarch"
    LD_PRELOAD="$root$preloads/libkmxc_vphone.so $root$preloads/libkmxc_vphone_world.so" "$work/example_service")
fi
"$checker" 50 15 12 "${run[@]}" || fail "the packaged example on the packaged phone"
[ -s "$work/phone/misc/sensor/kmxc_orvane.cfg" ] || fail "no calibration file on the phone"
echo "packaged example passed ($arch)"
