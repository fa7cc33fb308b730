#!/usr/bin/env bash
# Sets up a fresh machine, builds the library and runs every test.
#   scripts/test.sh             normal build in build/
#   scripts/test.sh --sanitize  AddressSanitizer + UndefinedBehaviorSanitizer in build-san/
# The normal run also fuzzes every harness of fuzz/ for a short while
# (scripts/fuzz.sh): they are always built with both sanitizers, so they run
# once, not again under --sanitize.
set -euo pipefail
source "$(dirname "$0")/common.sh"

dir=$root/build
args=(-DORVACCESS_BUILD_TESTS=ON)
fuzz=yes
if [ "${1:-}" = "--sanitize" ]; then
  fuzz=no
  dir=$root/build-san
  args+=(-DCMAKE_BUILD_TYPE=Debug -DORVACCESS_SANITIZE=address,undefined)
fi

"$root/scripts/install-deps.sh"
configure "$dir" "${args[@]}"
build "$dir"
(cd "$dir" && ctest --output-on-failure -j "$jobs")
if [ "$fuzz" = yes ]; then
  "$root/scripts/fuzz.sh"
fi
