#!/bin/sh
# Installs what was built into a fresh directory and checks the library and the program there.
#   installed.sh BUILD-DIRECTORY LIBDIR CHECK...
set -eu
build="$1" libdir="$2"
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work" >/dev/null
cmake="$1" readelf="$2"
shift 2
"$cmake" "$readelf" -DINSTALLED=1 -DKIND=LIBRARY -DFILE="$(readlink -f "$work/$libdir/libvorrel.so.1")" "$@"
"$cmake" "$readelf" -DINSTALLED=1 -DKIND=PROGRAM -DFILE="$work/bin/vorrel" "$@"
