#!/usr/bin/env bash
# Installs the Debian packages the build needs, and only those that are
# missing, so that a machine that has them all is left alone and offline.
#   scripts/install-deps.sh [further package...]
set -euo pipefail

packages=(cmake g++ make pkg-config binutils libace-dev libace-ssl-dev zlib1g-dev libgtest-dev
          libcli11-dev libre2-dev nlohmann-json3-dev rsyslog rsyslog-gnutls openssl lnav "$@")
missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "need root (or sudo) to install: ${missing[*]}" >&2; exit 1; }
  sudo=(sudo)
fi
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
