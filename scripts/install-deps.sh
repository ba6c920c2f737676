#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the main job need, when any is missing.
# Usage: scripts/install-deps.sh [extra-package ...]
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  dpkg-dev file binutils
  libgtest-dev libgmock-dev libbenchmark-dev
  libboost-dev libboost-filesystem-dev libboost-system-dev
  libarmnn-dev libarmnntfliteparser-dev libarmnn-cpuref-backend22
  libxnnpack-dev libpthreadpool-dev libcpuinfo-dev libflatbuffers-dev
  python3 python3-numpy python3-flatbuffers
  python3-jsonschema chromium chromium-driver python3-selenium
  "$@"
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}" >&2
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
