#!/usr/bin/env bash
# Builds the libFuzzer harnesses of fuzz/ with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer in build-fuzz/, and runs each for a bounded time.
#   scripts/fuzz.sh                          every harness for 12 s (scripts/test.sh runs this)
#   scripts/fuzz.sh --seconds 3600           the long run
#   scripts/fuzz.sh --seconds 60 shm command some harnesses only
# Each harness starts from the seeds the simulator's builders make, the inputs
# that once failed (fuzz/regressions/<harness>/) and what earlier runs found
# (build-fuzz/fuzz/corpus/<harness>/). A crash, a hang (an input running over
# 60 s), a leak or a sanitizer report fails the script; the input is kept in
# build-fuzz/fuzz/artifacts/. Each harness's runs and coverage are printed and
# written to build-fuzz/fuzz/summary.txt.
set -euo pipefail
source "$(dirname "$0")/common.sh"

seconds=12
if [ "${1:-}" = "--seconds" ]; then
  seconds=$2
  shift 2
fi
harnesses=("$@")
if [ ${#harnesses[@]} -eq 0 ]; then
  harnesses=(datagram subpacket chip image shm command config cinterface)
fi

if ! command -v clang++-14 >/dev/null; then
  echo "clang++-14 not found: fuzzing skipped"
  exit 0
fi

dir=$root/build-fuzz
echo "Building the fuzz harnesses with clang and both sanitizers in build-fuzz/ (about a minute and a half) ..."
CC=clang-14 CXX=clang++-14 configure "$dir" -DORVACCESS_FUZZ=ON -DORVACCESS_BUILD_TESTS=OFF \
  -DORVACCESS_BUILD_EXAMPLES=OFF -DORVACCESS_BUILD_BENCHMARKS=OFF
build "$dir" orvfuzz

work=$dir/fuzz
echo "Making the seeds from the simulator's packet builders ..."
"$work/orvfuzz_seeds" "$work/seeds" "$root/examples/orvaccess.ini"
mkdir -p "$work/artifacts" "$work/logs"

# One harness: its seeds and regressions are read, new inputs go to its corpus.
run() {
  local name=$1 dict=$work/seeds/wire.dict
  [ "$name" = config ] && dict=$work/seeds/config.dict
  local corpus=$work/corpus/$name regressions=$root/fuzz/regressions/$name
  mkdir -p "$corpus" "$regressions"
  "$work/fuzz_$name" -max_total_time="$seconds" -timeout=60 -rss_limit_mb=2048 -print_final_stats=1 \
    -dict="$dict" -artifact_prefix="$work/artifacts/$name-" \
    "$corpus" "$work/seeds/$name" "$regressions" >"$work/logs/$name.txt" 2>&1
}

# Runs, coverage (edges and features) and corpus size from a finished log.
summarize() {
  local name=$1 log=$work/logs/$1.txt
  awk -v name="$name" '
    /^stat::number_of_executed_units:/ { runs = $2 }
    /(DONE|INITED).*cov: / { for (i = 1; i <= NF; i++) { if ($i == "cov:") cov = $(i + 1); if ($i == "ft:") ft = $(i + 1); if ($i == "corp:") corp = $(i + 1) } }
    END { printf "%-11s %10s runs  cov %5s  ft %6s  corpus %s\n", name, runs, cov, ft, corp }' "$log"
}

echo "Fuzzing ${#harnesses[@]} harnesses for ${seconds} s each, $jobs at a time ..."
pids=()
names=()
failed=()
wait_one() {
  local pid=${pids[0]} name=${names[0]}
  pids=("${pids[@]:1}")
  names=("${names[@]:1}")
  if ! wait "$pid"; then failed+=("$name"); fi
  done_count=$((done_count + 1))
  echo "  $name finished ($done_count of ${#harnesses[@]})"
}
done_count=0
for name in "${harnesses[@]}"; do
  [ ${#pids[@]} -ge "$jobs" ] && wait_one
  run "$name" &
  pids+=($!)
  names+=("$name")
done
while [ ${#pids[@]} -gt 0 ]; do wait_one; done

: >"$work/summary.txt"
for name in "${harnesses[@]}"; do summarize "$name" | tee -a "$work/summary.txt"; done
if [ ${#failed[@]} -gt 0 ]; then
  for name in "${failed[@]}"; do
    echo "=== fuzz_$name failed; the end of its log ($work/logs/$name.txt):"
    tail -n 40 "$work/logs/$name.txt"
  done
  ls "$work/artifacts"
  exit 1
fi
