#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, only those that
# are missing. Safe to run again: on a machine that has everything it does nothing.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang            # toolchain
  libgtest-dev libgmock-dev libbenchmark-dev   # tests and benchmarks
  "android-liblog-dev:$(dpkg --print-architecture)"  # the Android logging library the library links
                                         # (the native one: an :armel copy alone does not do)
  binutils                               # readelf/nm for the contract checks
  gnuplot-nox                            # the demo's plot
  pkgconf dpkg-dev                       # install test (pkg-config), packages (dpkg-architecture)
)

# Installed for the build machine's architecture (or for all): a foreign-architecture
# copy (the armel liblog of the cross build, say) does not count.
arch=$(dpkg --print-architecture)
missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status} ${Architecture}\n' "$p" 2>/dev/null || true)
  grep -Eq "^install ok installed ($arch|all)$" <<<"$status" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing missing packages: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
