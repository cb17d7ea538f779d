#!/usr/bin/env bash
# Compiles the whole tree with clang's thread-safety analysis (warnings are
# errors), runs every fuzz target for a minute, then builds and runs the
# whole test suite three times: a normal build (with the long-running soak
# test), one with AddressSanitizer + UndefinedBehaviorSanitizer and one with
# ThreadSanitizer (both without it). Fails when any build or test fails.
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
  local skip=()
  [ -n "$sanitizer" ] && skip=(-LE long_running)
  (cd "$dir" && ctest -j"$jobs" --output-on-failure --timeout 600 "${skip[@]}")
}

echo "=== thread-safety compile (clang -Wthread-safety -Werror) ==="
cmake -S . -B build-test-tsa -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
      -DCMAKE_CXX_FLAGS="-Wthread-safety -Werror" -DORLANBECK_BENCH=OFF >/dev/null
cmake --build build-test-tsa -j"$jobs"

# Every fuzz target runs for 60 seconds from its seed corpus in fuzz/corpus/
# (copied, so that what the run adds stays in the build folder); a crash, a
# sanitizer report or an input that hangs fails the run.
echo "=== fuzzing (clang, libFuzzer, 60 s per target) ==="
cmake -S . -B build-test-fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
      -DORLANBECK_FUZZ=ON -DORLANBECK_TESTS=OFF -DORLANBECK_BENCH=OFF >/dev/null
cmake --build build-test-fuzz -j"$jobs"
for src in fuzz/*_fuzz.cpp; do
  name=$(basename "$src" .cpp)
  corpus=build-test-fuzz/corpus/$name
  rm -rf "$corpus" && mkdir -p "$corpus"
  if [ -d "fuzz/corpus/$name" ]; then cp -R "fuzz/corpus/$name/." "$corpus/"; fi
  echo "--- $name"
  "build-test-fuzz/fuzz/$name" -max_total_time=60 -timeout=10 -print_final_stats=1 \
    -artifact_prefix="build-test-fuzz/$name-" "$corpus"
done

run_variant normal ""
run_variant asan asan
run_variant tsan tsan
echo "=== all three builds passed ==="
