#!/usr/bin/env bash
# The randomized command campaign on the simulated arm: builds the optimised tree and runs seeds
# of kestrel-campaign, each in a process of its own, printing a line per seed and the totals.
# Exit status 1 when any check failed.
#
#   scripts/campaign.sh 200                 seeds 1 to 200
#   scripts/campaign.sh 5-40                seeds 5 to 40
#   scripts/campaign.sh --seed 17           seed 17 alone, its whole reproduction printed
#   scripts/campaign.sh --seed 17 --frames  ... and every frame the motors received, as CSV
#
# More options go to kestrel-campaign: --jobs N (seeds at a time, default 2), --duration SEC
# (arm time per seed, default 15). Reproductions of failing seeds and each seed's controller
# output are written to build-campaign/campaign-output/.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

if [ $# -eq 0 ] || [ "$1" = "-h" ] || [ "$1" = "--help" ]; then
  sed -n '2,13p' "$0" | sed 's/^# \{0,1\}//'
  exit 2
fi

./scripts/setup.sh
cmake -S "$root" -B "$root/build-campaign" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKESTREL_BUILD_BENCHMARKS=OFF -DKESTREL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$root/build-campaign" -j"$(nproc 2>/dev/null || echo 2)" --target kestrel-campaign \
  >/dev/null

# Two seeds at a time keep both cores of a small machine busy; a later --jobs wins.
exec "$root/build-campaign/tools/campaign/kestrel-campaign" --jobs 2 \
  --output "$root/build-campaign/campaign-output" "$@"
