#!/usr/bin/env bash
# The main job: the compass service running on the virtual phone. Installs what is
# missing, builds, and runs the default scenario from a fresh sandbox, printing a line
# per simulated second and a summary, and drawing out/compass-default.png.
# Extra arguments go to the program (./run.sh --help lists them).
set -euo pipefail
cd "$(dirname "$0")"
scripts/ensure-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j2 --target compass_service
mkdir -p out
exec build/tools/compass_service --fresh --sandbox out/sandbox --plot out/compass-default.png "$@"
