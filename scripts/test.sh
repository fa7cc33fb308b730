#!/usr/bin/env bash
# Sets up a fresh machine, builds the library and runs every test.
#   scripts/test.sh             normal build in build/
#   scripts/test.sh --sanitize  AddressSanitizer + UndefinedBehaviorSanitizer in build-san/
# The normal run also fuzzes every harness of fuzz/ for a short while
# (scripts/fuzz.sh): they are always built with both sanitizers, so they run
# once, not again under --sanitize. It ends with 30 s of the soak (orvsoak),
# whose memory figures mean something only without the sanitizers.
set -euo pipefail
source "$(dirname "$0")/common.sh"

dir=$root/build
args=(-DORVACCESS_BUILD_TESTS=ON)
extra=yes
if [ "${1:-}" = "--sanitize" ]; then
  extra=no
  dir=$root/build-san
  args+=(-DCMAKE_BUILD_TYPE=Debug -DORVACCESS_SANITIZE=address,undefined)
fi

"$root/scripts/install-deps.sh"
configure "$dir" "${args[@]}"
echo "Building everything in ${dir#"$root"/}: the library, the tools, the tests, the benchmarks, Python and the documentation ..."
build "$dir"
echo "Running the tests ..."
(cd "$dir" && ctest --output-on-failure -j "$jobs")
if [ "$extra" = yes ]; then
  "$root/scripts/fuzz.sh"
  echo "Soak: the library against orvsim with every fault on for 30 s ..."
  if ! "$dir/fuzz/orvsoak" --orvsim "$dir/sim/orvsim" --seconds 30 >"$dir/soak.txt" 2>&1; then
    cat "$dir/soak.txt"
    exit 1
  fi
  grep '^soak:' "$dir/soak.txt"
fi
