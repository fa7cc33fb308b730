# Sourced by the project's scripts: where things are and how to build.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc 2>/dev/null || echo 2)

# configure DIR [cmake args...]: warnings are errors in the project's own builds.
configure() {
  local dir=$1; shift
  cmake -S "$root" -B "$dir" -DORVACCESS_WERROR=ON "$@" >/dev/null
}

# build DIR [targets...]: everything when no target is named.
build() {
  local dir=$1; shift
  local targets=()
  for t in "$@"; do targets+=(--target "$t"); done
  cmake --build "$dir" -j "$jobs" "${targets[@]}" >/dev/null
}
