#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, only those that
# are missing. Safe to run again: on a machine that has everything it does nothing.
set -euo pipefail

arch=$(dpkg --print-architecture)
packages=(
  cmake ninja-build g++ clang            # toolchain
  libclang-rt-14-dev                     # clang's sanitizer and libFuzzer runtimes (fuzz/)
  libgtest-dev libgmock-dev libbenchmark-dev   # tests and benchmarks
  libeigen3-dev                          # double-precision reference fits in the kit's estimator tests (header-only)
  "android-liblog-dev:$arch"             # the Android logging library the library links
  binutils                               # readelf/nm/objdump for the contract checks
  clang-format                           # the tree's one style (.clang-format, scripts/check-format.sh)
  gnuplot-nox                            # the demo's plot
  pkgconf dpkg-dev                       # install test (pkg-config), packages (dpkg-architecture)
  valgrind                               # exact instruction counts on x86-64 (bench/icount)
  python3 git ccache                     # the planted-fault pass (scripts/plant_faults.py) and its compiler cache
  # The real target, ARM without an FPU (Debian armel), built by the cross compiler
  # and run under qemu-arm, with the armel copies of the libraries the build links.
  g++-arm-linux-gnueabi qemu-user
  android-liblog-dev:armel libgtest-dev:armel libgmock-dev:armel libbenchmark-dev:armel
)

# A package counts when it is installed for the architecture asked for (":armel"), or
# else for the build machine's or for all: a foreign copy alone (the armel liblog of
# the cross build, say) does not serve the native build.
missing=()
for p in "${packages[@]}"; do
  want=$arch
  [[ $p == *:* ]] && want=${p#*:}
  status=$(dpkg-query -W -f='${Status} ${Architecture}\n' "$p" 2>/dev/null || true)
  grep -Eq "^install ok installed ($want|all)$" <<<"$status" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing missing packages: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
if ! dpkg --print-foreign-architectures | grep -x armel >/dev/null; then
  $sudo dpkg --add-architecture armel
fi
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
