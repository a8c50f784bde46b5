#!/usr/bin/env bash
# Checks the Debian packages of a build tree (make_packages.sh put them in DEB_DIR)
# against README.md: the package files it names exist, with the architecture, version
# and dependencies it states, and hold exactly the files it lists (no more, no fewer).
# VERSION is the packages' <version>-<revision>.
# Usage: check_packages.sh DEB_DIR WORK_DIR README MULTIARCH DEB_ARCH VERSION CONFIG HAVE_KIT(yes|no)
set -euo pipefail
debs=$1 work=$2 readme=$3 multiarch=$4 arch=$5 version=$6 config=$7 have_kit=$8

fail() { echo "FAIL: $*" >&2; exit 1; }

# Only ever empties its own scratch directory.
rm -rf "$work"
mkdir -p "$work"

# The README's list: the first ```text block after "### Debian packages". A line
# "<file> depends: <deps>" starts a package, the indented lines under it are its files.
expected=$(awk '/^### Debian packages/ {s=1} s==1 && /^```text/ {s=2; next} s==2 && /^```/ {exit} s==2' "$readme" |
  sed -e "s/<version>-<revision>/$version/g" -e "s/<version>/${version%-*}/g" -e "s/<arch>/$arch/g" -e "s/<multiarch>/$multiarch/g" -e "s/<config>/$config/g")
[ -n "$expected" ] || fail "no package list under '### Debian packages' in $readme"
# The service kit's files are listed too; a tree without the kit does not make them.
[ "$have_kit" = yes ] || expected=$(grep -v kmxc_service <<<"$expected")

declare -A files deps
order=()
current=
while IFS= read -r line; do
  [ -z "${line// /}" ] && continue
  if [[ $line =~ ^([^[:space:]]+\.deb)[[:space:]]+depends:[[:space:]]*(.*)$ ]]; then
    current=${BASH_REMATCH[1]}
    order+=("$current")
    deps[$current]=${BASH_REMATCH[2]}
    files[$current]=
  elif [[ $line =~ ^[[:space:]]+(/[^[:space:]]+)$ ]] && [ -n "$current" ]; then
    files[$current]+="${BASH_REMATCH[1]}"$'\n'
  else
    fail "README package list: cannot read line '$line'"
  fi
done <<<"$expected"

made=$(cd "$debs" && ls -1 -- *.deb 2>/dev/null | sort)
want=$(printf '%s\n' "${order[@]}" | sort)
[ "$made" = "$want" ] || fail "cpack made [$(echo $made)], README lists [$(echo $want)]"

# Dependencies compared as sorted names; exact pins "(= v)" kept, minimum versions
# "(>= v)" (dpkg-shlibdeps' per-architecture choice) dropped.
dep_names() { tr ',' '\n' <<<"$1" | sed -e 's/([>][^)]*)//' -e 's/^ *//' -e 's/ *$//' | grep -v '^$' | sort -u; }
want_deps() { # "name[arch]" applies on that architecture only
  local d
  tr ',' '\n' <<<"$1" | sed -e 's/^ *//' -e 's/ *$//' | grep -v '^$' | while IFS= read -r d; do
    if [[ $d =~ ^(.*)\[([a-z0-9]+)\]$ ]]; then
      [ "${BASH_REMATCH[2]}" = "$arch" ] && echo "${BASH_REMATCH[1]}"
    else
      echo "$d"
    fi
  done | sort -u
}

status=0
for deb in "${order[@]}"; do
  f=$debs/$deb
  got_arch=$(dpkg-deb -f "$f" Architecture)
  got_deps=$(dpkg-deb -f "$f" Depends)
  [ "$got_arch" = "$arch" ] || { echo "FAIL: $deb: Architecture $got_arch, want $arch" >&2; status=1; }
  [ "$(dep_names "$got_deps")" = "$(want_deps "${deps[$deb]}")" ] ||
    { echo "FAIL: $deb: Depends '$got_deps', README says '${deps[$deb]}'" >&2; status=1; }
  # Files and links only; directories follow from them.
  got=$(dpkg-deb --contents "$f" | awk '$1 !~ /^d/ {print $6}' | sed 's#^\./#/#' | sort)
  want_files=$(printf '%s' "${files[$deb]}" | sort)
  if [ "$got" != "$want_files" ]; then
    echo "FAIL: $deb holds other files than README.md lists (< README, > package):" >&2
    diff <(echo "$want_files") <(echo "$got") >&2 || true
    status=1
  fi
  echo "$deb ($got_arch, depends: $got_deps): $(wc -l <<<"$got") files"
done

# The installed headers are complete on their own: every header one of them includes
# with quotes ("common/common.h", ...) is in the same package, beside it under
# include/kmxc_orvane.
for deb in "${order[@]}"; do
  headers=$(grep '^/usr/include/kmxc_orvane/.*\.h$' <<<"${files[$deb]}" || true)
  [ -n "$headers" ] || continue
  unpacked=$work/unpacked-${deb%.deb}
  dpkg-deb -x "$debs/$deb" "$unpacked"
  while IFS= read -r header; do
    while IFS= read -r included; do
      [ -f "$unpacked/usr/include/kmxc_orvane/$included" ] ||
        { echo "FAIL: $deb: $header includes \"$included\", which the package does not hold" >&2; status=1; }
    done < <(sed -n 's/^#include "\([^"]*\)".*/\1/p' "$unpacked$header")
  done <<<"$headers"
  echo "$deb: $(wc -l <<<"$headers") headers, each complete with the package's others"
done
exit $status
