#!/usr/bin/env bash
# Checks that the integer-only units compiled to integer code: their disassembly holds
# no floating-point instruction (VFP on ARM, SSE/x87 arithmetic on x86-64) and no call to the
# compiler's floating-point helpers, which is how a soft-float target (armel) does
# float and double arithmetic without an FPU.
# Usage: check_integer_only.sh OBJDUMP "OBJECTS;..." UNIT...   (units relative to the tree)
set -uo pipefail
objdump=$1 objects=$2; shift 2
fail=0
helpers='__aeabi_(f|d|[ilu]+2[fd]|[fd]2)[a-z0-9]*|__(add|sub|mul|div|neg|cmp|eq|ne|lt|le|gt|ge|unord)[sdt]f[23]|__(float|fix|extend|trunc)[a-z]*[sdt]f[a-z0-9]*'
# VFP on ARM; on x86-64 scalar/packed float arithmetic, conversions and x87 (a compiler
# may move or zero integer blocks through SSE registers: movups, xorps are not floats).
fpinsn='\bv(add|sub|mul|div|neg|abs|sqrt|cmp|cvt|ldr|str|mov|push|pop|ld|st|mla|mls|fma)[a-z0-9.]*|\b(fmrx|fmxr|fmstat)\b|\b(add|sub|mul|div|sqrt|min|max|round|cmp[a-z]*|u?comi)[sp][sd]\b|\bcvt[a-z0-9]*\b|\bf(ld|st|add|sub|mul|div|ild|ist)[a-z]*\b'
checked=0
IFS=';' read -r -a objs <<<"$objects"
for unit in "$@"; do
  obj=""
  # A unit's object is <target>.dir/<unit>.o, or <folder>/CMakeFiles/<target>.dir/<file>.o
  # for a target defined in the unit's own folder.
  for o in "${objs[@]}"; do
    o=${o//\/.\//\/}
    [[ $o == */$unit.o || $o == */$(dirname "$unit")/CMakeFiles/*.dir/$(basename "$unit").o ]] && obj=$o
  done
  [ -n "$obj" ] || { echo "integer-only: no object for $unit"; fail=1; continue; }
  dis=$("$objdump" -dr --no-show-raw-insn "$obj")
  calls=$(grep -oE "$helpers" <<<"$dis" | sort -u | tr '\n' ' ')
  insns=$(grep -P '^\s*[0-9a-f]+:\s' <<<"$dis" | cut -f2- | awk '{print $1}' | grep -oE "$fpinsn" | sort -u | tr '\n' ' ')
  [ -z "$calls" ] || { echo "integer-only: $unit calls floating-point helpers: $calls"; fail=1; }
  [ -z "$insns" ] || { echo "integer-only: $unit has floating-point instructions: $insns"; fail=1; }
  checked=$((checked + 1))
done
[ $fail -eq 0 ] && echo "integer-only: $checked units, no floating-point instruction or helper call"
exit $fail
