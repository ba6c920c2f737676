#!/usr/bin/env bash
# The main job: builds the library and its replay host, then replays stylus recordings through the
# library's exported functions and prints how well the predictions landed. The terminal gets the
# replay's progress line and its summary; the build's output and the library's log lines go to files
# under build/release (the summary names the log; a failed build shows the end of its output).
# Usage: scripts/replay.sh [stylus-replay options] [recording.csv ...]
#        (no recording given: the shipped sample, tools/sample/sample_240hz.csv)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

# Only what the build and the replay need; the test tools come with scripts/run-tests.sh.
scripts/install-deps.sh

build="$root/build/release"
mkdir -p "$build"
build_log="$build/replay-build.log"
# A note while building, erased once done, so that a person knows why nothing happens yet.
[ -t 2 ] && printf 'building stylus-replay (output in %s)...' "$build_log" >&2
if ! { cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DSTYLUS_BUILD_TESTS=OFF &&
       cmake --build "$build" -j "$(nproc)" --target stylus-replay; } >"$build_log" 2>&1; then
  [ -t 2 ] && printf '\n' >&2
  tail -n 30 "$build_log" >&2
  echo "scripts/replay.sh: the build failed; its whole output is in $build_log" >&2
  exit 1
fi
[ -t 2 ] && printf '\r\033[K' >&2

# Replay the shipped sample unless a recording (a file or a directory) is named; keep the library's
# log beside the build unless told where it goes.
has_recording=0
has_log=0
skip_value=0
for arg in "$@"; do
  if [ "$skip_value" -eq 1 ]; then
    skip_value=0
    continue
  fi
  case "$arg" in
    --config|--batch-size|--json|--predictions-out|--report) skip_value=1 ;;
    --log) skip_value=1; has_log=1 ;;
    --log=*|--verbose) has_log=1 ;;
    -*) ;;
    *) has_recording=1 ;;
  esac
done
if [ "$has_log" -eq 0 ]; then
  set -- --log "$build/stylus-replay.log" "$@"
fi
if [ "$has_recording" -eq 0 ]; then
  set -- "$@" "$root/tools/sample/sample_240hz.csv"
fi
exec "$build/tools/stylus-replay" "$@"
