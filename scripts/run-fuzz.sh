#!/usr/bin/env bash
# Builds the libFuzzer targets with clang-14 under AddressSanitizer and UndefinedBehaviorSanitizer
# and runs each of them for a bounded time, starting from the committed seed corpus. Fails when any
# target crashes, hangs, leaks or breaks one of its checks; the reproducer is left under
# build/fuzz/artifacts/.
#
# Usage: scripts/run-fuzz.sh [seconds-per-target]        (default 60)
#   A longer run of one target:  FUZZ_TARGETS=pipeline_fuzzer scripts/run-fuzz.sh 3600
#   Replay a reproducer:         build/fuzz/fuzz/<target> <file>
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

seconds=${1:-60}
targets=(${FUZZ_TARGETS:-config_json_fuzzer config_ini_fuzzer pipeline_fuzzer metrics_file_fuzzer recorder_row_fuzzer})
build="$root/build/fuzz"
jobs=${JOBS:-$(nproc)}

scripts/install-deps.sh test fuzz

echo "=== fuzz: configure and build in $build" >&2
CC=clang-14 CXX=clang++-14 cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSTYLUS_WERROR=ON \
  "-DSTYLUS_SANITIZE=address,undefined" -DSTYLUS_BUILD_FUZZ=ON -DSTYLUS_BUILD_TESTS=ON >/dev/null
cmake --build "$build" -j "$jobs" --target "${targets[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
failed=()
for target in "${targets[@]}"; do
  seeds="$root/fuzz/corpus/${target%_fuzzer}"
  corpus="$build/corpus/$target"       # grows during runs; the committed seeds stay as they are
  artifacts="$build/artifacts/$target"
  mkdir -p "$corpus" "$artifacts"
  echo "=== fuzz: $target for ${seconds}s" >&2
  if ! "$build/fuzz/$target" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 -print_final_stats=1 \
      -artifact_prefix="$artifacts/" "$corpus" "$seeds" >"$build/$target.log" 2>&1; then
    echo "=== fuzz: $target FAILED; log $build/$target.log, reproducer in $artifacts/" >&2
    tail -n 60 "$build/$target.log" >&2
    failed+=("$target")
  else
    grep -E "^stat::number_of_executed_units|^Done [0-9]+ runs" "$build/$target.log" | sed "s/^/  $target: /" >&2 || true
  fi
done

if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzz: ${#failed[@]} of ${#targets[@]} targets failed: ${failed[*]}" >&2
  exit 1
fi
echo "fuzz: ${#targets[@]} targets ran ${seconds}s each without a finding" >&2
