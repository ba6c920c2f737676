#!/usr/bin/env bash
# Builds and runs the whole test suite in three configurations: Release with warnings as errors,
# AddressSanitizer with UndefinedBehaviorSanitizer, and ThreadSanitizer; then runs every fuzz target
# for a bounded time (FUZZ_SECONDS each, default 60) under ASan and UBSan; then cross-builds for arm64
# (Release, warnings as errors) and runs the whole suite and a replay of the sample under qemu-user.
# Usage: scripts/run-tests.sh [release|asan|tsan|fuzz|arm64 ...]   (default: all five)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

# python3-torch: the tests of the training code's network and its export; chromium, chromium-driver
# and python3-selenium: stylus-live's test in a real browser.
scripts/install-deps.sh python3-torch chromium chromium-driver python3-selenium

jobs=${JOBS:-$(nproc)}
configs=("$@")
if [ ${#configs[@]} -eq 0 ]; then
  configs=(release asan tsan fuzz arm64)
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

# arm64: Debian's cross compiler against an arm64 sysroot folder (made once, reused), the programs run
# by qemu-user with that folder as its library prefix. The machine's own packages stay as they are.
run_arm64() {
  local build="$root/build/test-arm64"
  local sysroot="$root/build/arm64-sysroot"
  scripts/install-deps.sh crossbuild-essential-arm64 qemu-user-static mmdebstrap
  scripts/make-arm64-sysroot.sh "$sysroot"
  echo "=== arm64: configure and build in $build" >&2
  cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake" \
    -DSTYLUS_ARM64_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=Release -DSTYLUS_WERROR=ON >/dev/null
  cmake --build "$build" -j "$jobs"
  tests/check_exports.sh "$build/libStylusPredictor.so" aarch64-linux-gnu-nm
  export QEMU_LD_PREFIX="$sysroot"
  echo "=== arm64: run tests under qemu-user" >&2
  ctest --test-dir "$build" --output-on-failure -j "$jobs"
  echo "=== arm64: replay the shipped sample under qemu-user (timings are not device timings)" >&2
  qemu-aarch64-static "$build/tools/stylus-replay" --quiet --log "$build/replay-sample.log" \
    "$root/tools/sample/sample_240hz.csv"
  unset QEMU_LD_PREFIX
}

for config in "${configs[@]}"; do
  if [ "$config" = fuzz ]; then
    scripts/run-fuzz.sh "${FUZZ_SECONDS:-60}"
    continue
  fi
  if [ "$config" = arm64 ]; then
    run_arm64
    continue
  fi
  case "$config" in
    release) flags=(-DCMAKE_BUILD_TYPE=Release -DSTYLUS_WERROR=ON) ;;
    asan) flags=(-DCMAKE_BUILD_TYPE=Debug -DSTYLUS_WERROR=ON "-DSTYLUS_SANITIZE=address,undefined") ;;
    tsan) flags=(-DCMAKE_BUILD_TYPE=Debug -DSTYLUS_WERROR=ON -DSTYLUS_SANITIZE=thread) ;;
    *) echo "unknown configuration: $config (release, asan, tsan, fuzz or arm64)" >&2; exit 2 ;;
  esac
  build="$root/build/test-$config"
  echo "=== $config: configure and build in $build" >&2
  cmake -S "$root" -B "$build" "${flags[@]}" >/dev/null
  cmake --build "$build" -j "$jobs"
  echo "=== $config: run tests" >&2
  ctest --test-dir "$build" --output-on-failure -j "$jobs"
done
