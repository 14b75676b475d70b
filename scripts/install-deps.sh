#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing,
# plus any packages named as arguments. Safe to run any number of times.
set -euo pipefail

packages=(cmake g++ make libeigen3-dev libgtest-dev libbenchmark-dev pkg-config
          python3-dev python3-pybind11 python3-numpy python3-pytest python3-scipy
          python3-ase python3-rdkit python3-matplotlib
          python3-setuptools python3-pip python3-wheel python3-venv
          libopenmpi-dev openmpi-bin "$@")
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
