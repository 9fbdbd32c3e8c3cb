#!/usr/bin/env bash
# Runs one fuzz target for a fixed time on a scratch copy of its seed corpus (the repository's
# corpus is never written), under CTest. Usage: run_fuzz_target.sh BINARY CORPUS ARTIFACTS SECONDS
# A crash, leak, timeout or failed check fails the test and leaves the input in ARTIFACTS.
set -euo pipefail
binary=$1 corpus=$2 artifacts=$3 seconds=$4
scratch=$(mktemp -d "${TMPDIR:-/tmp}/kestrel-fuzz.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$artifacts" "$scratch/corpus"
cp -rL "$corpus"/. "$scratch/corpus/"  # the shipped files are linked, not copied
options=()
dict="$(dirname "$0")/dict/$(basename "$binary").dict"
if [ -e "$dict" ]; then
  options+=(-dict="$dict")
fi
# Every seed (regression inputs included) runs first, then the fuzzing proper.
"$binary" -max_total_time="$seconds" -timeout=2 -rss_limit_mb=2048 \
  -print_final_stats=1 -artifact_prefix="$artifacts/" "${options[@]}" "$scratch/corpus" \
  2>"$scratch/log" || {
  status=$?
  tail -n 60 "$scratch/log"
  echo "fuzz target $(basename "$binary") failed (status $status); inputs kept in $artifacts"
  exit 1
}
grep -E '^(#[0-9]+ +DONE|stat::number_of_executed_units)' "$scratch/log" || true
