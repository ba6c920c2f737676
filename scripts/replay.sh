#!/usr/bin/env bash
# The main job: builds the library and its replay host, then replays stylus recordings through the
# library's exported functions and prints how well the predictions landed.
# Usage: scripts/replay.sh [stylus-replay options] [recording.csv ...]
#        (no recording given: the shipped sample, tools/sample/sample_240hz.csv)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

scripts/install-deps.sh

build="$root/build/release"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DSTYLUS_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target stylus-replay >/dev/null

# Replay the shipped sample unless a recording (a file or a directory) is named.
has_recording=0
skip_value=0
for arg in "$@"; do
  if [ "$skip_value" -eq 1 ]; then
    skip_value=0
    continue
  fi
  case "$arg" in
    --config|--batch-size|--json|--predictions-out|--report) skip_value=1 ;;
    -*) ;;
    *) has_recording=1 ;;
  esac
done
if [ "$has_recording" -eq 0 ]; then
  set -- "$@" "$root/tools/sample/sample_240hz.csv"
fi
exec "$build/tools/stylus-replay" "$@"
