#!/usr/bin/env bash
# Sets up a fresh machine, builds the simulator and the monitor, and runs the simulated tracking
# system (orvsim) with the live monitor (orvmon) on 127.0.0.1 for about ten
# seconds, using the example configuration. The simulator injects a few
# faults; at the end both print what they saw, and the corrupted datagrams the
# simulator sent are checked against the error codes the library reported.
set -euo pipefail
source "$(dirname "$0")/common.sh"

seconds=${ORVDEMO_SECONDS:-10}
ini="$root/examples/orvaccess.ini"

"$root/scripts/install-deps.sh"
configure "$root/build"
# Only what the demo runs; ./scripts/test.sh builds the rest.
echo "Building liborvaccess, orvsim and orvmon (the first time about 3 minutes on 2 cores, more on a busy"
echo "machine; later only what changed) ..."
build "$root/build" orvsim orvmon
echo "Running orvsim and orvmon for $seconds s ..."

run=$(mktemp -d "${TMPDIR:-/tmp}/orvdemo-XXXXXX")
sim=""
cleanup() {
  if [ -n "$sim" ]; then kill "$sim" 2>/dev/null || true; fi
  rm -rf "$run"
}
trap cleanup EXIT

# Hub, NFT and shared-memory images follow streaming here, so that every
# datagram falls inside the monitor's run and can be accounted for.
"$root/build/bin/orvsim" --ini "$ini" --follow-streaming --startup 0.2 \
  --drop 0.002 --corrupt 0.002 --duplicate 0.002 --reorder 0.002 --files "$run" \
  >"$run/orvsim.txt" 2>"$run/orvsim.err" &
sim=$!
# orvsim says "serving" once its ports are open; a failed start ends it,
# and the limit (30 s) ends one that hangs.
tries=0
until grep -q serving "$run/orvsim.err"; do
  if ! kill -0 "$sim" 2>/dev/null; then
    cat "$run/orvsim.err" >&2
    exit 1
  fi
  tries=$((tries + 1))
  if [ "$tries" -ge 600 ]; then
    echo "orvsim did not start serving within 30 s; its output:" >&2
    cat "$run/orvsim.err" >&2
    exit 1
  fi
  sleep 0.05
done

"$root/build/bin/orvmon" --ini "$ini" --duration "$seconds" --uplink --summary-file "$run/orvmon.txt"
kill -INT "$sim"
wait "$sim"
sim=""
echo
cat "$run/orvsim.txt"
echo

# Each corrupted datagram must come back as one "Bad ... packet" code of its port.
awk '
  FNR == NR && $1 == "error" { reported[$3] = $2; next }
  FNR != NR && NF == 10 && $2 ~ /^[0-9]+$/ { injected[$1] = $5 }
  FNR != NR && $1 == "codes" { for (i = 2; i < NF; i += 2) { names[++n] = $i; codeOf[$i] = $(i + 1) } }
  END {
    bad = 0
    line = "faults     corrupted datagrams sent / reported by the library:"
    for (i = 1; i <= n; i++) {
      name = names[i]; code = codeOf[name]
      sent = injected[name] + 0; got = reported[code] + 0
      line = line sprintf(" %s %d/%d", name, sent, got)
      if (sent != got) bad = 1
    }
    print line
    print bad ? "faults     MISMATCH" : "faults     all match"
    exit bad
  }' "$run/orvmon.txt" "$run/orvsim.txt"
