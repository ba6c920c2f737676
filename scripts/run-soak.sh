#!/usr/bin/env bash
# Soak run: 1,000,000 batches of mixed good and bad input (NaN and infinite values, timestamps going
# backwards, duplicate timestamps, empty batches, pen-up and pen-down storms, very large batches) from
# concurrent senders through the exported functions, with recording on; then restarts the library
# with bad configurations between runs whose batches go back in time. Prints the report (batches
# sent and refused, predictions, resident memory over the runs, rows recorded plus rows reported lost
# against samples the recorder accepted, configurations refused, wall time) and exits non-zero when
# a check fails. Not part of the tests.
#
# Usage: scripts/run-soak.sh [stylus-soak options]   e.g. --batches 200000 --senders 4 --policy Block
# Uses the shipped model when models/stylus_predictor.json exists, else a generated one.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

scripts/install-deps.sh test

build="$root/build/soak"
echo "=== soak: configure and build in $build" >&2
# The tests' build provides the generated models.
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DSTYLUS_BUILD_TESTS=ON >/dev/null
cmake --build "$build" -j "${JOBS:-$(nproc)}" --target stylus-soak test_models

if [ -f "$root/models/stylus_predictor.json" ] && [ -f "$root/models/stylus_predictor.tflite" ]; then
  model=(--config "$root/models/stylus_predictor.json")
else
  model=(--model "$build/test_models/mlp_n10_p5.tflite")
fi
echo "=== soak: running" >&2
"$build/tools/soak/stylus-soak" "${model[@]}" --batches 1000000 --json "$build/soak-report.json" "$@"
