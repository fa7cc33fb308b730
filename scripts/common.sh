# Sourced by the project's scripts: where things are and how to build.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc 2>/dev/null || echo 2)

# configure DIR [cmake args...]: warnings are errors in the project's own builds.
configure() {
  local dir=$1; shift
  local log
  log=$(mktemp)
  echo "Configuring ${dir#"$root"/} ..."
  # ccache (installed by install-deps.sh) makes the plain, sanitized and
  # later builds cheap where they compile the same sources again.
  local launcher=()
  if command -v ccache >/dev/null; then
    # The tests share a precompiled header, which ccache caches only when
    # told to overlook its time stamps; the build directory keeps the setting.
    local cc="env;CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime;ccache"
    launcher=("-DCMAKE_C_COMPILER_LAUNCHER=$cc" "-DCMAKE_CXX_COMPILER_LAUNCHER=$cc")
  fi
  if ! cmake -S "$root" -B "$dir" -DORVACCESS_WERROR=ON "${launcher[@]}" "$@" >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    return 1
  fi
  rm -f "$log"
}

# The build's own steps ("[ 45%] Building ... main.cpp.o"): rewritten in place
# on a terminal, a line each elsewhere, so that a long build shows it moves.
show_steps() {
  local tty=0
  [ -t 1 ] && tty=1
  awk -v tty="$tty" '
    /^\[ *[0-9]+(%|\/[0-9]+)\]/ {
      line = $0
      gsub(/CMakeFiles\/[^\/]*\.dir\//, "", line)
      if (tty) printf "\r\033[K  %s", substr(line, 1, 100); else print "  " line
      fflush()
    }
    END { if (tty) printf "\r\033[K" }'
}

# build DIR [targets...]: everything when no target is named. Shows the
# steps; the compiler's full output only when the build fails.
build() {
  local dir=$1; shift
  local targets=() log
  for t in "$@"; do targets+=(--target "$t"); done
  log=$(mktemp)
  if ! cmake --build "$dir" -j "$jobs" "${targets[@]}" 2>&1 | tee "$log" | show_steps; then
    echo "The build failed; its output:" >&2
    cat "$log" >&2
    rm -f "$log"
    return 1
  fi
  rm -f "$log"
}
