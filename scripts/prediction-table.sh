#!/usr/bin/env bash
# Measures the library's prediction error on each head-motion profile of
# orvsim and prints it as a Markdown table, one row per profile and horizon.
# Uses an existing build (build/ or $ORVBUILD) and the ports of the INI file
# (examples/orvaccess.ini unless named):
#   scripts/prediction-table.sh [INI] [SECONDS-PER-PROFILE]
# A trace of your own: ORVTRACE=my.csv (or a capture, session.pcap) adds the
# rows of "trace".
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bin=${ORVBUILD:-$root/build}
ini=${1:-$root/examples/orvaccess.ini}
seconds=${2:-10}
for tool in bin/orvsim bin/orvmon; do
  if [ ! -x "$bin/$tool" ]; then
    echo "prediction-table: $bin/$tool is missing; build it first (./scripts/demo.sh or cmake --build build)" >&2
    exit 2
  fi
done
profiles=(smooth gaze smooth+vibration gaze+vibration)
if [ -n "${ORVTRACE:-}" ]; then profiles+=(trace); fi

run=$(mktemp -d "${TMPDIR:-/tmp}/orvtable-XXXXXX")
sim=""
cleanup() {
  if [ -n "$sim" ]; then kill "$sim" 2>/dev/null || true; fi
  rm -rf "$run"
}
trap cleanup EXIT

echo "| profile | horizon | predicted mean | predicted p95 | predicted max | unpredicted p95 | poses |"
echo "|---|---:|---:|---:|---:|---:|---:|"
for m in "${profiles[@]}"; do
  echo "prediction-table: measuring $m for $seconds s ..." >&2
  args=(--ini "$ini" --motion "$m")
  if [ "$m" = trace ]; then args+=(--trace "$ORVTRACE"); fi
  "$bin/bin/orvsim" "${args[@]}" >"$run/sim.txt" 2>"$run/sim.err" &
  sim=$!
  if ! "$bin/bin/orvmon" --ini "$ini" --duration "$seconds" --plain >"$run/mon.txt" 2>"$run/mon.err"; then
    echo "prediction-table: orvmon failed on $m:" >&2
    cat "$run/mon.err" "$run/sim.err" >&2
    exit 1
  fi
  kill "$sim" 2>/dev/null || true
  wait "$sim" 2>/dev/null || true
  sim=""
  awk -v m="$m" '$1 == "horizon" && $2 != "0.0" {
      printf "| %s | %s ms | %s deg | %s deg | %s deg | %s deg | %s |\n", m, $2 + 0, $8, $12, $14, $20, $5 }' \
    "$run/mon.txt"
done
