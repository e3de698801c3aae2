#!/usr/bin/env bash
# Builds the Debian packages from the committed tree, checks them with
# lintian (no errors), installs them, builds the consumer program against
# the installed -dev package with find_package and with pkg-config, runs
# tovilog --version, and removes the packages again.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh" debhelper devscripts lintian help2man fakeroot
work=$(mktemp -d)
packages=(tovilog libtovibaseutil-dev libtovibaseutil1)
cleanup() { dpkg -P "${packages[@]}" >/dev/null 2>&1 || true; rm -rf "$work"; }
trap cleanup EXIT

mkdir "$work/src"
git -C "$root" archive HEAD | tar -x -C "$work/src"
(cd "$work/src" && DEB_BUILD_OPTIONS=nocheck dpkg-buildpackage -us -uc -b >"$work/build.log" 2>&1) ||
  { tail -40 "$work/build.log"; exit 1; }
lintian --fail-on error "$work"/*.changes
dpkg -i "$work"/libtovibaseutil1_*.deb "$work"/libtovibaseutil-dev_*.deb "$work"/tovilog_*.deb >/dev/null

cmake -S "$root/tests/consumer" -B "$work/cmake-build" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/consumer" "$work/a.cfg"
# shellcheck disable=SC2046
g++ -std=c++17 -Wall -Wextra -Werror "$root/tests/consumer/main.cpp" -o "$work/pc-consumer" \
  $(pkg-config --cflags --libs tovibaseutil)
"$work/pc-consumer" "$work/b.cfg"
tovilog --version
test -f /etc/lnav/formats/tovi/tovi_log.json
echo "package check passed (lintian, find_package, pkg-config, tovilog)"
