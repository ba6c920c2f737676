#!/usr/bin/env bash
# Builds and runs the whole test suite in three configurations: Release with warnings as errors,
# AddressSanitizer with UndefinedBehaviorSanitizer, and ThreadSanitizer; then runs every fuzz target
# for a bounded time (FUZZ_SECONDS each, default 60) under ASan and UBSan; then cross-builds for arm64
# (Release, warnings as errors) and runs the whole suite and a replay of the sample under qemu-user.
# Installs every tool the tests need first, so no test is skipped: a skipped test counts as failed.
#
# The terminal gets one line per configuration and, last, "N passed, M failed" over all of them;
# each configuration's build and test output goes to build/test-logs/CONFIG.log.
# Usage: scripts/run-tests.sh [release|asan|tsan|fuzz|arm64 ...]   (default: all five)
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

jobs=${JOBS:-$(nproc)}
configs=("$@")
if [ ${#configs[@]} -eq 0 ]; then
  configs=(release asan tsan fuzz arm64)
fi
groups=(test)
for config in "${configs[@]}"; do
  case "$config" in
    release|asan|tsan) ;;
    fuzz|arm64) groups+=("$config") ;;
    *) echo "unknown configuration: $config (release, asan, tsan, fuzz or arm64)" >&2; exit 2 ;;
  esac
done

logs="$root/build/test-logs"
mkdir -p "$logs"
if ! scripts/install-deps.sh "${groups[@]}" >"$logs/install-deps.log" 2>&1; then
  tail -n 20 "$logs/install-deps.log" >&2
  echo "the test tools could not be installed; see $logs/install-deps.log"
  echo "0 passed, 1 failed"
  exit 1
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

# Results of the configuration being run: counts and the names of what failed.
passed=0 failed=0 failed_names=()
pass() { passed=$((passed + 1)); }
fail() { failed=$((failed + 1)); failed_names+=("$1"); }

# Runs ctest with the output going to the log, then counts from its JUnit report: a skipped test
# (the tool it needs is missing, which the installed tools rule out) is a failure here.
run_ctest() { # build-dir log
  local junit="$1/ctest-junit.xml" name status
  rm -f "$junit"
  ctest --test-dir "$1" --output-on-failure -j "$jobs" --output-junit "$junit" >>"$2" 2>&1
  if [ ! -f "$junit" ]; then
    fail "ctest"
    return
  fi
  while IFS=$'\t' read -r name status; do
    case "$status" in
      run) pass ;;
      notrun) fail "$name (skipped)" ;;
      *) fail "$name" ;;
    esac
  done < <(/usr/bin/python3 -c '
import sys, xml.etree.ElementTree as tree
for case in tree.parse(sys.argv[1]).getroot().iter("testcase"):
    print(case.get("name"), case.get("status"), sep="\t")' "$junit")
  # The end of each failed test's output, for the terminal: a failure that does not repeat is
  # diagnosed from what a remote run printed.
  /usr/bin/python3 -c '
import sys, xml.etree.ElementTree as tree
for case in tree.parse(sys.argv[1]).getroot().iter("testcase"):
    if case.get("status") not in ("run", "notrun"):
        out = case.find("system-out")
        lines = [l for l in (out.text or "").splitlines() if l.strip()] if out is not None else []
        print("  --- %s, last lines:" % case.get("name"))
        for line in lines[-12:]:
            print("    " + line[:200])' "$junit" >>"$failure_tails"
}

build_tree() { # name build-dir log cmake-flags...
  local name=$1 build=$2 log=$3
  shift 3
  if ! { cmake -S "$root" -B "$build" "$@" && cmake --build "$build" -j "$jobs"; } >>"$log" 2>&1; then
    fail "$name build"
    return 1
  fi
}

run_native() { # config log
  local build="$root/build/test-$1" flags
  case "$1" in
    release) flags=(-DCMAKE_BUILD_TYPE=Release -DSTYLUS_WERROR=ON) ;;
    asan) flags=(-DCMAKE_BUILD_TYPE=Debug -DSTYLUS_WERROR=ON "-DSTYLUS_SANITIZE=address,undefined") ;;
    tsan) flags=(-DCMAKE_BUILD_TYPE=Debug -DSTYLUS_WERROR=ON -DSTYLUS_SANITIZE=thread) ;;
  esac
  build_tree "$1" "$build" "$2" "${flags[@]}" || return
  run_ctest "$build" "$2"
}

# One result per fuzz target, from scripts/run-fuzz.sh's "=== fuzz: TARGET ..." lines.
run_fuzz() { # log
  local target
  scripts/run-fuzz.sh "${FUZZ_SECONDS:-60}" >>"$1" 2>&1
  local targets
  targets=$(sed -n 's/^=== fuzz: \([a-z_]*_fuzzer\) for .*/\1/p' "$1" | sort -u)
  if [ -z "$targets" ]; then
    fail "fuzz build"
    return
  fi
  for target in $targets; do
    if grep -q "^=== fuzz: $target FAILED" "$1"; then fail "$target"; else pass; fi
  done
}

# arm64: Debian's cross compiler against an arm64 sysroot folder (made once, reused), the programs run
# by qemu-user with that folder as its library prefix. The machine's own packages stay as they are.
run_arm64() { # log
  local build="$root/build/test-arm64" sysroot="$root/build/arm64-sysroot"
  if ! scripts/make-arm64-sysroot.sh "$sysroot" >>"$1" 2>&1; then
    fail "arm64 sysroot"
    return
  fi
  build_tree arm64 "$build" "$1" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake" \
    -DSTYLUS_ARM64_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=Release -DSTYLUS_WERROR=ON || return
  if tests/check_exports.sh "$build/libStylusPredictor.so" aarch64-linux-gnu-nm >>"$1" 2>&1; then
    pass
  else
    fail "arm64 exported symbols"
  fi
  export QEMU_LD_PREFIX="$sysroot"
  run_ctest "$build" "$1"
  # The replay of the shipped sample under qemu-user (timings are not device timings).
  if qemu-aarch64-static "$build/tools/stylus-replay" --quiet --log "$build/replay-sample.log" \
      "$root/tools/sample/sample_240hz.csv" >>"$1" 2>&1; then
    pass
  else
    fail "arm64 replay of the sample"
  fi
  unset QEMU_LD_PREFIX
}

total_passed=0 total_failed=0
for config in "${configs[@]}"; do
  log="$logs/$config.log"
  : >"$log"
  passed=0 failed=0 failed_names=()
  failure_tails="$logs/$config.failures"
  : >"$failure_tails"
  start=$SECONDS
  [ -t 1 ] && printf '%-8s running (output in %s)...' "$config:" "$log"
  case "$config" in
    release|asan|tsan) run_native "$config" "$log" ;;
    fuzz) run_fuzz "$log" ;;
    arm64) run_arm64 "$log" ;;
  esac
  elapsed=$((SECONDS - start))
  [ -t 1 ] && printf '\r\033[K'
  printf '%-8s %d passed, %d failed in %dm%02ds; log %s\n' "$config:" "$passed" "$failed" \
    $((elapsed / 60)) $((elapsed % 60)) "${log#"$root"/}"
  for name in "${failed_names[@]}"; do
    echo "         failed: $name"
  done
  head -n 60 "$failure_tails"
  total_passed=$((total_passed + passed))
  total_failed=$((total_failed + failed))
done

echo "$total_passed passed, $total_failed failed"
[ "$total_failed" -eq 0 ]
