# Sourced by the project's scripts: where things are and how to configure.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc 2>/dev/null || echo 2)

# configure_build DIR [cmake args...]
configure_build() {
  local dir=$1; shift
  cmake -S "$root" -B "$dir" -DORVACCESS_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}
