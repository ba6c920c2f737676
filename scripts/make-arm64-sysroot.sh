#!/usr/bin/env bash
# Makes (once) an arm64 Debian 12 sysroot with the libraries the library, its tests and stylus-replay
# link against, for cross-building and for qemu-user's library prefix. The machine's own packages
# are left alone: the arm64 packages are only unpacked into the folder, never installed.
# A stamp with the package list and sources marks a finished sysroot; a different list remakes it.
# Usage: scripts/make-arm64-sysroot.sh SYSROOT-DIR
set -euo pipefail
sysroot=${1:?usage: make-arm64-sysroot.sh SYSROOT-DIR}
mkdir -p "$(dirname "$sysroot")"
sysroot="$(cd "$(dirname "$sysroot")" && pwd)/$(basename "$sysroot")"

packages=(
  libc6-dev libstdc++-12-dev
  libarmnn-dev libarmnntfliteparser-dev libarmnn-cpuref-backend22 libarmnn-cpuacc-backend22
  libboost-dev libboost-filesystem-dev libboost-system-dev
  libgtest-dev libgmock-dev
  libxnnpack-dev libpthreadpool-dev libcpuinfo-dev libflatbuffers-dev
)
sources=(
  "deb http://deb.debian.org/debian bookworm main"
  "deb http://deb.debian.org/debian bookworm-updates main"
  "deb http://deb.debian.org/debian-security bookworm-security main"
)
stamp_text=$(printf '%s\n' "${packages[@]}" "${sources[@]}")
stamp="$sysroot/.stylus-sysroot-stamp"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$stamp_text" ]; then
  exit 0
fi

echo "=== arm64: making the sysroot in $sysroot" >&2
rm -rf "$sysroot"
partial="$sysroot.partial"
rm -rf "$partial"
# The extract variant resolves the packages' dependencies but runs none of their scripts.
include=$(IFS=,; echo "${packages[*]}")
mmdebstrap --quiet --arch=arm64 --variant=extract --include="$include" bookworm "$partial" "${sources[@]}"

# Under qemu's prefix the folder's /dev links and /tmp would shadow the machine's own.
rm -rf "$partial/dev" "$partial/tmp"
# Debian's development symlinks (libm.so -> /lib/...) are absolute; inside a folder they would point
# at the machine's own files, so they are made relative to the sysroot.
while IFS= read -r -d '' link; do
  target=$(readlink "$link")
  case "$target" in
    /*) ln -sfnr "$partial$target" "$link" ;;
  esac
done < <(find "$partial" -type l -print0)

printf '%s\n' "$stamp_text" >"$partial/.stylus-sysroot-stamp"
mv "$partial" "$sysroot"
