#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Line coverage of the library (api/, platform/, devices/) by the whole ctest
# suite, measured in a build folder of its own so the everyday build keeps its
# optimised objects. Usage: scripts/coverage.sh [build-folder]  (default build-cov)
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build-cov}
jobs=${WCAN_JOBS:-2}

launcher=()
if command -v ccache >/dev/null; then
  export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD/..} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-true}
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
# -O0 so that every source line maps to code the counters can see.
cmake -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DWCAN_BUILD_BENCH=OFF "${launcher[@]}" \
  -DCMAKE_C_FLAGS=--coverage -DCMAKE_CXX_FLAGS=--coverage \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage >/dev/null
cmake --build "$dir" -j"$jobs"

# Counters from an earlier run would add up with this one.
find "$dir" -name '*.gcda' -delete
ctest --test-dir "$dir" -j"$jobs" --output-on-failure || status=$?

# Threads racing on a counter can leave a negative branch count, which gcov
# prints and gcovr cannot parse; only the branch figures would use it.
gcovr -r . --filter 'api/' --filter 'platform/' --filter 'devices/' --gcov-ignore-parse-errors \
  --print-summary -o "$dir/coverage.txt" "$dir" 2>"$dir/gcovr.log" | grep -E '^(lines|functions):'
exit "${status:-0}"
