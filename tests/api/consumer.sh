#!/bin/sh
# Installs the built library into a fresh directory, builds a small host against it by
# find_package and by pkg-config, and runs both.
#   consumer.sh BUILD-DIRECTORY CONSUMER-SOURCES CXX EXTRA-FLAGS
set -eu
build="$1" sources="$2" cxx="$3" flags="$4"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libvorrel.so.1')")
export VORREL_BACKEND=simulated
for file in man/man1/vorrel.1 man/man3/vorrel.3 bash-completion/completions/vorrel zsh/site-functions/_vorrel; do
    [ -s "$prefix/share/$file" ] || { echo "share/$file is not installed" >&2; exit 1; }
done

cmake -S "$sources" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/host"

# The file was made for another prefix; pkg-config moves it.
export PKG_CONFIG_PATH="$libdir/pkgconfig"
options=$(pkg-config --define-variable=prefix="$prefix" --cflags --libs vorrel)
# shellcheck disable=SC2086  # lists of words
"$cxx" $flags "$sources/host.cpp" $options -o "$work/host"
LD_LIBRARY_PATH="$libdir" "$work/host"
echo "both hosts ran"
