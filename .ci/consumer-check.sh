#!/usr/bin/env bash
# Installs the library into a scratch prefix and builds a separate program
# against it twice: with find_package and with pkg-config.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(dirname "$(find "$work/prefix" -name 'libtovibaseutil.so' | head -n1)")
test -f "$work/prefix/include/tovibaseutil/ToviDebugMgr.h"
test -f "$libdir/pkgconfig/tovibaseutil.pc"
readelf -d "$libdir/libtovibaseutil.so" | grep -q 'SONAME.*libtovibaseutil.so.1'

cmake -S "$root/tests/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer" "$work/a.cfg"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
g++ -std=c++17 -Wall -Wextra -Werror "$root/tests/consumer/main.cpp" -o "$work/pc-consumer" \
  $(pkg-config --cflags --libs tovibaseutil)
LD_LIBRARY_PATH="$libdir" "$work/pc-consumer" "$work/b.cfg"
echo "consumer check passed (find_package and pkg-config)"
