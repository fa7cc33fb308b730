#!/usr/bin/env bash
# Installs the built library into a temporary prefix, then builds and runs
# two small consumers against that copy: C++ through find_package(OrvAccess)
# and C through pkg-config.
set -euo pipefail
build_dir=$1
consumer_src=$2
san_flags=${3:-}

work=$(mktemp -d "${TMPDIR:-/tmp}/orvainstall-XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build_dir" --prefix "$prefix" >/dev/null

echo "== CMake package consumer (C++)"
cmake -S "$consumer_src" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="$san_flags" -DCMAKE_EXE_LINKER_FLAGS="$san_flags" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/consumer_cpp"

echo "== pkg-config consumer (C99)"
pcdir=$(dirname "$(find "$prefix" -name orvaccess.pc | head -n 1)")
libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir orvaccess)
# shellcheck disable=SC2046
gcc -std=c99 -Wall -Wextra -Wpedantic -Werror $san_flags "$consumer_src/consumer.c" \
  $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs orvaccess) -o "$work/consumer_c"
LD_LIBRARY_PATH=$libdir "$work/consumer_c"
