#!/usr/bin/env bash
# Builds and runs the whole test suite in three configurations: Release with warnings as errors,
# AddressSanitizer with UndefinedBehaviorSanitizer, and ThreadSanitizer; then runs every fuzz target
# for a bounded time (FUZZ_SECONDS each, default 60) under ASan and UBSan.
# Usage: scripts/run-tests.sh [release|asan|tsan|fuzz ...]   (default: all four)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

scripts/install-deps.sh

jobs=${JOBS:-$(nproc)}
configs=("$@")
if [ ${#configs[@]} -eq 0 ]; then
  configs=(release asan tsan fuzz)
fi

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
if [ -f "$root/tests/sanitizers/lsan.supp" ]; then
  export LSAN_OPTIONS="suppressions=$root/tests/sanitizers/lsan.supp:${LSAN_OPTIONS:-}"
fi
if [ -f "$root/tests/sanitizers/tsan.supp" ]; then
  export TSAN_OPTIONS="$TSAN_OPTIONS:suppressions=$root/tests/sanitizers/tsan.supp"
fi

for config in "${configs[@]}"; do
  if [ "$config" = fuzz ]; then
    scripts/run-fuzz.sh "${FUZZ_SECONDS:-60}"
    continue
  fi
  case "$config" in
    release) flags=(-DCMAKE_BUILD_TYPE=Release -DSTYLUS_WERROR=ON) ;;
    asan) flags=(-DCMAKE_BUILD_TYPE=Debug -DSTYLUS_WERROR=ON "-DSTYLUS_SANITIZE=address,undefined") ;;
    tsan) flags=(-DCMAKE_BUILD_TYPE=Debug -DSTYLUS_WERROR=ON -DSTYLUS_SANITIZE=thread) ;;
    *) echo "unknown configuration: $config (release, asan, tsan or fuzz)" >&2; exit 2 ;;
  esac
  build="$root/build/test-$config"
  echo "=== $config: configure and build in $build" >&2
  cmake -S "$root" -B "$build" "${flags[@]}" >/dev/null
  cmake --build "$build" -j "$jobs"
  echo "=== $config: run tests" >&2
  ctest --test-dir "$build" --output-on-failure -j "$jobs"
done
