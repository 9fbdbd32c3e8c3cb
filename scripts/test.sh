#!/usr/bin/env bash
# The whole test suite: installs what is missing, builds, and runs every test three ways:
# a plain optimised build, AddressSanitizer + UndefinedBehaviorSanitizer, and ThreadSanitizer
# for the tests labelled "threaded"; then every fuzz target for 20 s under libFuzzer (clang).
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

# The fuzz tree builds only the parsers and their fuzz targets (tests/fuzz), with clang.
fuzz_stage() {
  if ! command -v clang++ >/dev/null 2>&1; then
    echo "==== fuzz stage skipped: clang++ is not installed"
    return
  fi
  local runtime
  runtime=$(clang++ -print-file-name=libclang_rt.fuzzer-x86_64.a 2>/dev/null || true)
  if [ "$(uname -m)" = x86_64 ] && [ ! -f "$runtime" ]; then
    echo "==== fuzz stage skipped: clang's libFuzzer runtime is missing (libclang-rt-14-dev)"
    return
  fi
  echo "==== [build-fuzz] configure and build (clang, libFuzzer + address,undefined)"
  CC=clang CXX=clang++ cmake -S "$root" -B "$root/build-fuzz" -DKESTREL_FUZZ=ON \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$root/build-fuzz" -j"$jobs"
  echo "==== [build-fuzz] run fuzz targets (label fuzz)"
  # Two at a time: each target runs single-threaded for a fixed time.
  ctest --test-dir "$root/build-fuzz" --output-on-failure -j"$jobs" -L fuzz
}
fuzz_stage
echo "==== all test runs passed"
