#!/usr/bin/env bash
# Sets up a fresh machine, builds the library and runs every test.
#   scripts/test.sh                     normal build in build/
#   scripts/test.sh --sanitize          AddressSanitizer + UndefinedBehaviorSanitizer in build-san/
#                                       (also spelt --sanitize=address)
#   scripts/test.sh --sanitize=thread   ThreadSanitizer in build-tsan/
# The normal run also fuzzes every harness of fuzz/ for a short while
# (scripts/fuzz.sh): they are always built with both sanitizers, so they run
# once, not again under --sanitize. It ends with 30 s of the soak (orvsoak),
# whose memory figures mean something only without the sanitizers.
set -euo pipefail
source "$(dirname "$0")/common.sh"

dir=$root/build
args=(-DORVACCESS_BUILD_TESTS=ON)
extra=yes
reports=
# The sanitized builds run the tests only: the benchmarks are built (and
# never judged) by the plain one.
no_benchmarks=(-DORVACCESS_BUILD_BENCHMARKS=OFF)
case "${1:-}" in
  "") ;;
  --sanitize|--sanitize=address)
    extra=no
    dir=$root/build-san
    args+=(-DCMAKE_BUILD_TYPE=Debug -DORVACCESS_SANITIZE=address,undefined "${no_benchmarks[@]}")
    ;;
  --sanitize=thread)
    # Optimised: ThreadSanitizer slows every memory access down, and the
    # tests' threads must keep up with the simulator's. The first report
    # fails the program that made it; tsan.supp names the libraries we do
    # not build (and so cannot instrument), never our own code. Reports go
    # to files, since many tests capture their standard error.
    extra=no
    dir=$root/build-tsan
    reports=$dir/tsan-reports
    args+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVACCESS_SANITIZE=thread "${no_benchmarks[@]}")
    export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$root/scripts/tsan.supp log_path=$reports/report ${TSAN_OPTIONS:-}"
    ;;
  *)
    echo "usage: $0 [--sanitize | --sanitize=address | --sanitize=thread]" >&2
    exit 2
    ;;
esac

"$root/scripts/install-deps.sh"
if [ -n "$reports" ]; then
  rm -rf "$reports"
  mkdir -p "$reports"
fi
configure "$dir" "${args[@]}"
# Python and the benchmarks only in the plain build: a sanitized extension
# needs an interpreter started with the sanitizer's runtime.
echo "Building in ${dir#"$root"/}: the library, the tools, the tests and the documentation$([ "$extra" = yes ] && echo ", Python and the benchmarks") ..."
build "$dir"
echo "Running the tests ..."
status=0
(cd "$dir" && ctest --output-on-failure -j "$jobs") || status=$?
if [ -n "$reports" ] && compgen -G "$reports/report.*" >/dev/null; then
  echo "ThreadSanitizer reports (also in $reports):"
  cat "$reports"/report.*
  status=1
fi
[ "$status" -eq 0 ] || exit "$status"
if [ "$extra" = yes ]; then
  "$root/scripts/fuzz.sh"
  echo "Soak: the library against orvsim with every fault on for 30 s ..."
  if ! "$dir/fuzz/orvsoak" --orvsim "$dir/bin/orvsim" --seconds 30 >"$dir/soak.txt" 2>&1; then
    cat "$dir/soak.txt"
    exit 1
  fi
  grep '^soak:' "$dir/soak.txt"
fi
