#!/usr/bin/env bash
# Builds the optimised tree and runs every benchmark program (benchmarks/*/bench_*), printing
# their figures. Pass names to run only some: scripts/bench.sh bench_codec bench_bus
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
./scripts/setup.sh
cmake -S "$root" -B "$root/build-bench" -DCMAKE_BUILD_TYPE=Release -DKESTREL_BUILD_TESTS=OFF \
  -DKESTREL_BUILD_BENCHMARKS=ON >/dev/null
cmake --build "$root/build-bench" -j"$(nproc 2>/dev/null || echo 2)"

mapfile -t all < <(find "$root/build-bench/benchmarks" -maxdepth 2 -type f -executable -name 'bench_*' | sort)
selected=()
if [ $# -gt 0 ]; then
  for want in "$@"; do
    for b in "${all[@]}"; do [ "$(basename "$b")" = "$want" ] && selected+=("$b"); done
  done
else
  selected=("${all[@]}")
fi
for b in "${selected[@]}"; do
  echo "==== $(basename "$b")"
  "$b"
done
