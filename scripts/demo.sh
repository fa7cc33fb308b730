#!/usr/bin/env bash
# Sets up a fresh machine, builds the library and runs the example programs.
set -euo pipefail
source "$(dirname "$0")/common.sh"

"$root/scripts/install-deps.sh"
configure "$root/build"
build "$root/build" orvinfo orvinfo_c
"$root/build/examples/orvinfo"
"$root/build/examples/orvinfo_c"
