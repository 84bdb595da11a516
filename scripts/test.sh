#!/usr/bin/env bash
# Builds clockette and runs the whole test suite twice: a normal build and a
# build with AddressSanitizer + UndefinedBehaviorSanitizer. The normal build
# also makes the Debian packages and checks them.
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
# Installed to /usr, as the Debian packages are.
run_suite build -DCMAKE_INSTALL_PREFIX=/usr
echo "== Debian packages =="
bash scripts/check-packages.sh build
echo "== sanitizer build =="
ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
  run_suite build-asan -DCLOCKETTE_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug

echo "== fuzz targets (libFuzzer) replaying their seed corpora =="
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCLOCKETTE_FUZZ=ON \
  -DCLOCKETTE_TESTS=OFF -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build-fuzz -j "$jobs" --target fuzz_der fuzz_tsresp fuzz_dispatch fuzz_commands \
  fuzz_setup
for target in der tsresp dispatch commands setup; do
  ASAN_OPTIONS=detect_leaks=0 "build-fuzz/fuzz/fuzz_$target" -runs=0 "fuzz/corpus/$target"
done
