#!/usr/bin/env bash
# Checks the built shared library against its contract with the calling service:
#   1. its dynamic symbol table defines exactly the names of the version script;
#   2. it imports no allocator, thread or guarded-static function;
#   3. it runs no static constructors: its .init_array is no larger than that of an
#      empty shared library built by the same toolchain (which holds only the
#      toolchain's own entry).
# Usage: check_library.sh LIBRARY VERSION_SCRIPT BASELINE_LIBRARY
set -uo pipefail
lib=$1 map=$2 baseline=$3
fail=0
problem() { echo "contract: $*"; fail=1; }

# Names between "global:" and "local:", one per line, comments dropped.
wanted=$(sed -e 's:/\*.*\*/::g' "$map" | sed -n '/global:/,/local:/p' |
         grep -v -e 'global:' -e 'local:' | tr -d ' \t;' | grep -v '^$' | sort)
if grep -q '[*?]' <<<"$wanted"; then problem "the version script must name every export, no patterns"; fi

exported=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | sort)
extra=$(comm -13 <(echo "$wanted") <(echo "$exported"))
missing=$(comm -23 <(echo "$wanted") <(echo "$exported"))
[ -z "$extra" ] || problem "exported but not in the version script:" $extra
[ -z "$missing" ] || problem "in the version script but not exported:" $missing

forbidden='^(malloc|calloc|realloc|free|aligned_alloc|posix_memalign|memalign|valloc|pvalloc|strdup|strndup|_Znw.*|_Zna.*|_Zdl.*|_Zda.*|pthread_.*|__cxa_guard_.*|__cxa_atexit|__cxa_thread_atexit.*|thrd_.*|mtx_.*)$'
imported=$(nm -D --undefined-only "$lib" | awk '{print $2}' | sed 's/@.*//' | grep -E "$forbidden")
[ -z "$imported" ] || problem "imports forbidden functions:" $imported

init_size() {
  local hex
  hex=$(readelf -SW "$1" | awk '$2==".init_array"{print $6}' | head -n1)
  echo $((16#${hex:-0}))
}
ctors=$(readelf -SW "$lib" | awk '$2==".ctors"')
[ -z "$ctors" ] || problem "has a .ctors section"
lib_init=$(init_size "$lib"); base_init=$(init_size "$baseline")
if [ "$lib_init" -gt "$base_init" ]; then
  problem "has static constructors: .init_array is ${lib_init} bytes, an empty library's ${base_init}"
fi

[ $fail -eq 0 ] && echo "contract: $(basename "$lib") exports $(echo "$exported" | wc -l) names, all listed; no allocator, thread or constructor"
exit $fail
