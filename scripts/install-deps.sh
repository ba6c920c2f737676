#!/usr/bin/env bash
# Installs the Debian packages a task needs, when any is missing.
# Usage: scripts/install-deps.sh [GROUP ...] [PACKAGE ...]
#   no group:  what building the library and running the main job (stylus-replay) need
#   test:      that plus the test tools (GoogleTest, Google Benchmark, the generated test models'
#              Python modules, jsonschema, Chromium and Selenium, PyTorch with OpenBLAS, lintian, packaging tools)
#   fuzz:      clang-14 and its sanitizer runtimes
#   arm64:     the cross compiler, qemu-user and mmdebstrap for the arm64 sysroot
set -euo pipefail

main_job=(
  cmake g++ make pkg-config python3
  libboost-dev libboost-filesystem-dev libboost-system-dev
  libarmnn-dev libarmnntfliteparser-dev libarmnn-cpuref-backend22
  libxnnpack-dev libpthreadpool-dev libcpuinfo-dev libflatbuffers-dev
)
test_tools=(
  libgtest-dev libgmock-dev libbenchmark-dev
  python3-numpy python3-flatbuffers python3-torch libopenblas0-serial
  python3-jsonschema chromium chromium-driver python3-selenium
  lintian dpkg-dev file binutils gzip man-db
)
fuzz_tools=(clang-14 libclang-rt-14-dev)
arm64_tools=(crossbuild-essential-arm64 qemu-user-static mmdebstrap)

packages=("${main_job[@]}")
for arg in "$@"; do
  case "$arg" in
    test) packages+=("${test_tools[@]}") ;;
    fuzz) packages+=("${fuzz_tools[@]}") ;;
    arm64) packages+=("${arm64_tools[@]}") ;;
    *) packages+=("$arg") ;;
  esac
done

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
