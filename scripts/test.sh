#!/usr/bin/env bash
# Sets up the machine, builds libOlk with its tests, benchmarks and examples,
# and runs the whole test suite.
#   scripts/test.sh              the normal build, in build/
#   scripts/test.sh --sanitize   AddressSanitizer + UndefinedBehaviorSanitizer, in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

dir=build
flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
if [[ "${1:-}" == "--sanitize" ]]; then
  dir=build-asan
  flags=(-DCMAKE_BUILD_TYPE=Debug -DOLK_SANITIZE=ON -DOLK_BUILD_BENCH=OFF)
fi
jobs=$(nproc)
cmake -S . -B "$dir" -G Ninja "${flags[@]}" >/dev/null
cmake --build "$dir" -j "$jobs"
cd "$dir"
ctest --output-on-failure -j "$jobs"
