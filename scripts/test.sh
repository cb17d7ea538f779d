#!/usr/bin/env bash
# Compiles the whole tree with clang's thread-safety analysis (warnings are
# errors), then builds and runs the whole test suite three times: a normal
# build, one with AddressSanitizer + UndefinedBehaviorSanitizer and one with
# ThreadSanitizer. Fails when any build or test fails.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

jobs=$(nproc 2>/dev/null || echo 2)
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

run_variant() {
  local name=$1 sanitizer=$2 dir="build-test-$1"
  echo "=== $name build ==="
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORLANBECK_SANITIZER="$sanitizer" \
        -DORLANBECK_BENCH=$([ -z "$sanitizer" ] && echo ON || echo OFF) >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "=== $name tests ==="
  (cd "$dir" && ctest -j"$jobs" --output-on-failure --timeout 600)
}

echo "=== thread-safety compile (clang -Wthread-safety -Werror) ==="
cmake -S . -B build-test-tsa -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
      -DCMAKE_CXX_FLAGS="-Wthread-safety -Werror" -DORLANBECK_BENCH=OFF >/dev/null
cmake --build build-test-tsa -j"$jobs"

run_variant normal ""
run_variant asan asan
run_variant tsan tsan
echo "=== all three builds passed ==="
