#!/usr/bin/env bash
# Installs what is missing, builds, and runs the demo process.
#   scripts/demo.sh [demo options, see --help]
# TOVI_BUILD_DIR chooses the build directory (default: build).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"

build=${TOVI_BUILD_DIR:-$root/build}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target tovi_demo tovilog
exec "$build/examples/tovi_demo" "$@"
