#!/usr/bin/env bash
# Installs the Debian packages of the peer comparison (`make bench-peers`):
# GSL, dlib and scipy, only those that are missing. Safe to run repeatedly.
set -euo pipefail

packages=(libgsl-dev libdlib-dev python3-scipy python3-numpy)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
