#!/usr/bin/env bash
# Fails, naming the files, when a tracked C or C++ file is not as .clang-format has it.
# Reads only; to apply the style: git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format -i
set -euo pipefail
cd "$(dirname "$0")/.."
unformatted=()
while IFS= read -r f; do
  clang-format --dry-run --Werror "$f" >/dev/null 2>&1 || unformatted+=("$f")
done < <(git ls-files '*.c' '*.cpp' '*.h')
if [ ${#unformatted[@]} -ne 0 ]; then
  echo "check-format: ${#unformatted[@]} file(s) differ from .clang-format:" >&2
  printf '  %s\n' "${unformatted[@]}" >&2
  echo "apply with: clang-format -i FILE..." >&2
  exit 1
fi
echo "check-format: $(git ls-files '*.c' '*.cpp' '*.h' | wc -l) files as .clang-format has them"
