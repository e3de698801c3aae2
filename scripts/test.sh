#!/usr/bin/env bash
# Installs what is missing, then configures, builds (warnings are errors)
# and runs every test.
#   scripts/test.sh [extra cmake arguments]
# TOVI_BUILD_DIR chooses the build directory (default: build).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"

build=${TOVI_BUILD_DIR:-$root/build}
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_COMPILE_WARNING_AS_ERROR=ON "$@"
cmake --build "$build" -j"$jobs"
cd "$build"
ctest --output-on-failure -j"$jobs" --timeout 600
