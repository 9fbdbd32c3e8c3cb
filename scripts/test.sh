#!/usr/bin/env bash
# The whole test suite: installs what is missing, builds, and runs every test three ways:
# a plain optimised build, AddressSanitizer + UndefinedBehaviorSanitizer, and ThreadSanitizer
# for the tests labelled "threaded".
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

./scripts/setup.sh

jobs=$(nproc 2>/dev/null || echo 2)

build_and_test() {
  local dir=$1 sanitizer=$2 label=$3
  echo "==== [$dir] configure and build (sanitizer: ${sanitizer:-none})"
  cmake -S "$root" -B "$root/$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKESTREL_SANITIZER="$sanitizer" -DKESTREL_BUILD_BENCHMARKS=OFF >/dev/null
  cmake --build "$root/$dir" -j"$jobs"
  echo "==== [$dir] run tests ${label:+(label $label)}"
  # The sanitizer builds run one test at a time: their control loops and simulated arms are
  # several times slower, and two of them at once on a small machine starve each other.
  local test_jobs=$jobs
  if [ -n "$sanitizer" ]; then
    test_jobs=1
  fi
  local args=(--test-dir "$root/$dir" --output-on-failure -j"$test_jobs")
  if [ -n "$label" ]; then
    args+=(-L "$label")
  fi
  ctest "${args[@]}"
}

build_and_test build "" ""
build_and_test build-asan address ""
build_and_test build-tsan thread threaded
echo "==== all test runs passed"
