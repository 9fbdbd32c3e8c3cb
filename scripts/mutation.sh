#!/usr/bin/env bash
# Mutation smoke test: do the tests catch faults? Applies the faults of scripts/mutations.txt to
# the library source one at a time, in a separate git worktree (the working tree here is never
# touched), rebuilds what changed, runs the tests that cover the mutated file, and prints a
# Markdown table of which faults were caught: by a failing test, by the build, or not at all.
# Every fault is judged against a green baseline: the same tests unmutated must pass first.
# It takes long (a build and a test run per fault); it is not part of CI.
set -euo pipefail

usage() {
  cat <<'EOF'
usage: scripts/mutation.sh [options] [ID...]

Runs every fault of the list, or only the IDs given (e.g. M07 M12).

  --list              print the faults and the tests that cover them, then exit
  --commit REV        the commit to mutate (default HEAD)
  --worktree DIR      work in DIR (created from REV if missing) and keep it and its build at the
                      end; without it a temporary worktree is made and removed
  --jobs N            build and test jobs (default: the number of processors)
  --time-limit S      longest test run per fault, in seconds (default 300)
  --report FILE       also write the table to FILE (e.g. docs/mutation-report.md)
  --faults FILE       the fault list (default scripts/mutations.txt)
  --build-only        apply and build each fault, run no test (warms ccache, finds faults the
                      compiler catches)
EOF
}

root=$(cd "$(dirname "$0")/.." && pwd)
helper=(python3 "$root/scripts/mutation.py")
faults=$root/scripts/mutations.txt
commit=HEAD
worktree=
jobs=$(nproc 2>/dev/null || echo 2)
time_limit=300
report=
list=0
build_only=0
ids=()
while [ $# -gt 0 ]; do
  case $1 in
    --list) list=1 ;;
    --commit) commit=$2; shift ;;
    --worktree) worktree=$2; shift ;;
    --jobs) jobs=$2; shift ;;
    --time-limit) time_limit=$2; shift ;;
    --report) report=$(realpath -m "$2"); shift ;;
    --faults) faults=$(realpath "$2"); shift ;;
    --build-only) build_only=1 ;;
    -h|--help) usage; exit 0 ;;
    -*) usage >&2; exit 2 ;;
    *) ids+=("$1") ;;
  esac
  shift
done

if [ "$list" = 1 ]; then
  exec "${helper[@]}" list "$faults" "${ids[@]}"
fi
read -r -a selected <<<"$("${helper[@]}" ids "$faults" "${ids[@]}")"
rev=$(git -C "$root" rev-parse --verify "$commit^{commit}")

# ---- the worktree and its build ---------------------------------------------------------------
keep=1
if [ -z "$worktree" ]; then
  worktree=$(mktemp -d /tmp/kestrel-mutation.XXXXXX)
  rmdir "$worktree"
  keep=0
fi
worktree=$(realpath -m "$worktree")
build=$worktree/build
mutated_file=
backup=

finish() {
  if [ -n "$mutated_file" ]; then
    cp "$backup" "$worktree/$mutated_file"
  fi
  if [ "$keep" = 0 ] && [ -d "$worktree" ]; then
    git -C "$root" worktree remove --force "$worktree"
  fi
}
trap finish EXIT

if [ -e "$worktree/.git" ]; then
  if [ -n "$(git -C "$worktree" status --porcelain --untracked-files=no)" ]; then
    echo "mutation: $worktree has changes of its own; refusing to use it" >&2
    exit 1
  fi
  git -C "$worktree" checkout --quiet --detach "$rev"
else
  git -C "$root" worktree add --quiet --detach "$worktree" "$rev"
fi
echo "==== worktree $worktree at $(git -C "$worktree" log -1 --format='%h %s' | cut -c1-70)"

configure=(-DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -DNDEBUG"
           -DKESTREL_BUILD_BENCHMARKS=OFF -DKESTREL_BUILD_PYTHON=OFF)
if [ ! -f "$build/CMakeCache.txt" ] && command -v ninja >/dev/null 2>&1; then
  configure+=(-G Ninja)
fi
if command -v ccache >/dev/null 2>&1; then
  configure+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
  export CCACHE_BASEDIR=$worktree   # hits across worktrees at other paths
fi
cmake -S "$worktree" -B "$build" "${configure[@]}" >/dev/null

logs=$build/mutation-logs
mkdir -p "$logs"
backup=$logs/original
results=$logs/results.tsv
: >"$results"

# Faults whose original text is no longer there are reported, never run.
runnable=()
for id in "${selected[@]}"; do
  if why=$("${helper[@]}" check "$faults" "$worktree" "$id"); then
    runnable+=("$id")
  else
    printf '%s\tstale\t%s\t0\n' "$id" "$why" >>"$results"
  fi
done

build_targets() {  # build_targets LOG TARGET...
  local log=$1
  shift
  cmake --build "$build" -j "$jobs" --target "$@" >"$log" 2>&1
}

run_tests() {  # run_tests LIMIT LOG ID...: 0 passed, 124 over the time limit, else failed
  local limit=$1 log=$2 regexes regex status=0
  shift 2
  regexes=$("${helper[@]}" regex "$faults" "$logs/tests.json" "$@") || return 2
  : >"$log"
  while read -r regex; do
    "${helper[@]}" run-limited "$limit" ctest --test-dir "$build" -j "$jobs" \
      --output-on-failure --stop-on-failure --no-tests=error -R "$regex" >>"$log" 2>&1 ||
      status=$?
    [ "$status" = 0 ] || return "$status"
  done <<<"$regexes"
}

started=$(date +%s)
if [ ${#runnable[@]} -gt 0 ]; then
  read -r -a all_targets <<<"$("${helper[@]}" targets "$faults" "${runnable[@]}")"
  echo "==== baseline: building ${all_targets[*]}"
  if ! build_targets "$logs/baseline-build.log" "${all_targets[@]}"; then
    echo "mutation: the unmutated tree does not build; see $logs/baseline-build.log" >&2
    exit 1
  fi
  ctest --test-dir "$build" --show-only=json-v1 >"$logs/tests.json"
  if [ "$build_only" = 0 ]; then
    echo "==== baseline: running the selected tests unmutated"
    # Once more before giving up: a timing test may fail once on a busy machine.
    if ! run_tests $((time_limit * 4)) "$logs/baseline-tests.log" "${runnable[@]}" &&
       ! run_tests $((time_limit * 4)) "$logs/baseline-tests.log" "${runnable[@]}"; then
      echo "mutation: the baseline is not green: $("${helper[@]}" failed "$logs/baseline-tests.log")" >&2
      echo "  (see $logs/baseline-tests.log)" >&2
      exit 1
    fi
  fi
fi

for id in "${runnable[@]}"; do
  fault_started=$(date +%s)
  file=$("${helper[@]}" file "$faults" "$id")
  read -r -a targets <<<"$("${helper[@]}" targets "$faults" "$id")"
  log=$logs/$id.log
  cp "$worktree/$file" "$backup"
  mutated_file=$file
  "${helper[@]}" apply "$faults" "$worktree" "$id"
  if ! build_targets "$log" "${targets[@]}"; then
    result=build
    detail=$("${helper[@]}" compiler-error "$log")
  elif [ "$build_only" = 1 ]; then
    result=built
    detail=
  else
    status=0
    run_tests "$time_limit" "$log" "$id" || status=$?
    case $status in
      0) result=survived; detail= ;;
      124) result=timeout; detail="no result within ${time_limit} s" ;;
      *) result=test; detail=$("${helper[@]}" failed "$log") ;;
    esac
  fi
  cp "$backup" "$worktree/$file"
  mutated_file=
  seconds=$(($(date +%s) - fault_started))
  printf '%s\t%s\t%s\t%s\n' "$id" "$result" "$detail" "$seconds" >>"$results"
  printf '%s %-9s %4ss %s\n' "$id" "$result" "$seconds" "$detail"
done

title="Mutation smoke test at $(git -C "$worktree" rev-parse --short HEAD), $(date -u '+%Y-%m-%d %H:%M') UTC"
table=$("${helper[@]}" report "$faults" "$results" "$title")
echo
echo "$table"
echo
echo "Total $(($(date +%s) - started)) s; logs in $logs$([ "$keep" = 0 ] && echo ' (removed with the worktree)')"
if [ -n "$report" ]; then
  echo "$table" >"$report"
  echo "Table written to $report"
fi
