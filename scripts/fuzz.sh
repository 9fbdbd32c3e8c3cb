#!/usr/bin/env bash
# Longer fuzzing than the test suite's 20 s per target: builds the fuzz tree (clang, libFuzzer,
# ASan + UBSan) and runs every target for SECONDS each (default 600), two at a time. The corpus
# each target grows is kept in fuzz-work/<target>/corpus (git-ignored) and seeds the next run,
# together with the repository's seeds in tests/fuzz/corpus/<target>. Prints per target the
# executions, libFuzzer's coverage (cov: and ft: of its final stats line), the corpus size and
# every crash, leak or timeout input found, and fails when there is one.
#
#   scripts/fuzz.sh             # 10 minutes per target
#   scripts/fuzz.sh 60 fuzz_dm_codec fuzz_urdf_reader   # chosen targets only
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${1:-600}
shift || true

if ! command -v clang++ >/dev/null 2>&1; then
  echo "fuzz.sh: clang++ is missing (scripts/setup.sh installs it)" >&2
  exit 1
fi
build="$root/build-fuzz"
work="$root/fuzz-work"
echo "==== [build-fuzz] configure and build"
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DKESTREL_FUZZ=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)"

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for dir in "$root"/tests/fuzz/corpus/*/; do
    targets+=("$(basename "$dir")")
  done
fi

run_one() {
  local target=$1
  local dir="$work/$target"
  mkdir -p "$dir/corpus" "$dir/artifacts" "$dir/earlier-artifacts"
  # Inputs found by an earlier run stay, out of the way of this run's report.
  find "$dir/artifacts" -type f -exec mv -t "$dir/earlier-artifacts" {} +
  local options=(-max_total_time="$seconds" -timeout=2 -rss_limit_mb=2048 -print_final_stats=1
                 -artifact_prefix="$dir/artifacts/")
  local dict="$root/tests/fuzz/dict/$target.dict"
  if [ -e "$dict" ]; then
    options+=(-dict="$dict")
  fi
  # The grown corpus is written to (and first in) the list; the repository's seeds are read only.
  # A crash ends the run early: the rest of the time is not spent.
  "$build/tests/fuzz/$target" "${options[@]}" "$dir/corpus" "$root/tests/fuzz/corpus/$target" \
    >"$dir/log" 2>&1 || true
}

summary() {
  local target=$1
  local dir="$work/$target"
  local execs final files bytes found
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log" | tail -n 1)
  final=$(grep -E '^#[0-9]+' "$dir/log" | tail -n 1)
  files=$(find "$dir/corpus" -type f | wc -l)
  bytes=$(du -sb "$dir/corpus" | cut -f1)
  printf '%-24s execs %-10s cov %-6s ft %-6s corpus %s files, %s bytes\n' "$target" \
    "${execs:-?}" "$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$final")" \
    "$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$final")" "$files" "$bytes"
  found=$(find "$dir/artifacts" -type f | sort)
  if [ -n "$found" ]; then
    sed 's/^/    found: /' <<<"$found"
    grep -E 'ERROR: |fuzz check failed|runtime error' "$dir/log" | head -n 3 | sed 's/^/    /'
    return 1
  fi
}

echo "==== fuzzing ${#targets[@]} targets for ${seconds} s each, two at a time"
running=0
for target in "${targets[@]}"; do
  if [ ! -x "$build/tests/fuzz/$target" ]; then
    echo "fuzz.sh: no fuzz target named $target" >&2
    exit 1
  fi
  run_one "$target" &
  running=$((running + 1))
  if [ "$running" -ge 2 ]; then
    wait -n
    running=$((running - 1))
  fi
done
wait

echo "==== results (corpus and inputs kept in $work)"
failed=0
for target in "${targets[@]}"; do
  summary "$target" || failed=1
done
exit $failed
