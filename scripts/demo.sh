#!/usr/bin/env bash
# Sets up a fresh machine, builds the library and runs the example program.
set -euo pipefail
source "$(dirname "$0")/common.sh"

"$root/scripts/install-deps.sh"
configure_build "$root/build" -DORVACCESS_BUILD_TESTS=OFF
"$root/build/examples/orvinfo"
"$root/build/examples/orvinfo_c"
