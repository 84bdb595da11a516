#!/usr/bin/env bash
# Builds clockette and runs the whole test suite twice: a normal build and a
# build with AddressSanitizer + UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

echo "== normal build =="
run_suite build
echo "== sanitizer build =="
ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
  run_suite build-asan -DCLOCKETTE_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
