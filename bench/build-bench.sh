# Sourced by the benchmarks: builds the programs they time in a Release tree
# of its own (BUILD_DIR, by default build-bench) and sets $build to it.
#   build_bench TARGET...
build_bench() {
  local root
  root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
  build=${BUILD_DIR:-$root/build-bench}
  [[ $build = /* ]] || build=$root/$build
  echo "== building in $build (Release, with benchmarks)"
  if [ -f "$build/CMakeCache.txt" ]; then
    cmake -S "$root" -B "$build" -DCLOCKETTE_BENCH=ON >/dev/null
  else
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCLOCKETTE_BENCH=ON \
      -DCLOCKETTE_TESTS=OFF >/dev/null
  fi
  cmake --build "$build" --target "$@" -j 2 >/dev/null
}
