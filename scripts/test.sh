#!/usr/bin/env bash
# Sets up a fresh machine, builds the library and runs every test.
#   scripts/test.sh             normal build in build/
#   scripts/test.sh --sanitize  AddressSanitizer + UndefinedBehaviorSanitizer in build-san/
set -euo pipefail
source "$(dirname "$0")/common.sh"

dir=$root/build
args=(-DORVACCESS_BUILD_TESTS=ON)
if [ "${1:-}" = "--sanitize" ]; then
  dir=$root/build-san
  args+=(-DCMAKE_BUILD_TYPE=Debug -DORVACCESS_SANITIZE=address,undefined)
fi

"$root/scripts/install-deps.sh"
configure "$dir" "${args[@]}"
build "$dir"
cd "$dir"
ctest --output-on-failure -j "$jobs"
