#!/bin/sh
# Installs the built library into a scratch prefix and builds a small C
# consumer against it twice: through pkg-config and through find_package.
set -eu
build=$1
work=$2
rm -rf "$work"
mkdir -p "$work"
here=$(cd "$(dirname "$0")" && pwd)
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(ls -d "$work/prefix"/lib*/pkgconfig | head -n 1)
libdir=${libdir%/pkgconfig}

# pkg-config
PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs okuvad
cc -Wall -Werror -o "$work/consumer_pc" "$here/consumer.c" \
   $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs okuvad)
LD_LIBRARY_PATH="$libdir" "$work/consumer_pc"

# find_package
cmake -S "$here" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer_c"
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer_cpp"
echo "installed package: pkg-config and find_package consumers passed"
