#!/usr/bin/env bash
# Records the shipped model's outputs on fixed inputs into tests/fixtures/shipped_model_outputs.txt,
# the reference the tests check every machine and engine against (arm64 under emulation included).
# Run on x86-64 after the model is retrained; the tests refuse a fixture made for another model file.
# Usage: scripts/regenerate-model-fixture.sh
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

if [ "$(uname -m)" != x86_64 ]; then
  echo "regenerate-model-fixture: the reference is made on x86-64, not $(uname -m)" >&2
  exit 1
fi
scripts/install-deps.sh test

build="$root/build/test-release"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DSTYLUS_WERROR=ON >/dev/null
cmake --build "$build" -j "${JOBS:-$(nproc)}" --target make-model-fixture >/dev/null
# Arm NN is the engine the model has always run on; the others are compared with it.
TALC_INFERENCE_ENGINE=armnn "$build/tests/make-model-fixture" models/stylus_predictor.tflite \
  tests/fixtures/shipped_model_outputs.txt
echo "wrote tests/fixtures/shipped_model_outputs.txt" >&2
