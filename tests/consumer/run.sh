#!/bin/sh
# Configures the library from SOURCE with no optional package visible (no
# pkg-config, so no libsndfile or libsoxr; no GoogleTest, no Python), builds
# and installs it into a scratch prefix, checks the installed layout, and
# builds small consumers against it through pkg-config and find_package.
# Usage: run.sh SOURCE WORK
set -eu
src=$1
work=$2
rm -rf "$work"
mkdir -p "$work"
here=$(cd "$(dirname "$0")" && pwd)

cmake -S "$src" -B "$work/build" -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON \
      -DCMAKE_DISABLE_FIND_PACKAGE_Python3=ON > "$work/configure.log"
for part in "the C example" "the oku command" "the tests"; do
  grep -q "oku: skipping $part" "$work/configure.log" || { cat "$work/configure.log"; echo "no skip line for $part"; exit 1; }
done
cmake --build "$work/build" > /dev/null
cmake --install "$work/build" --prefix "$work/prefix" > /dev/null

# Only the two C headers and the folder of C++ headers in include/.
found=$(cd "$work/prefix/include" && ls | tr '\n' ' ')
[ "$found" = "oku oku.h okuvad.h " ] || { echo "include/ holds: $found"; exit 1; }
# The classes in include/oku/, and in include/oku/detail/ only the types they hold by value.
found=$(cd "$work/prefix/include/oku" && ls | tr '\n' ' ')
[ "$found" = "agc.h audioanalyzer.h audiodata.h detail " ] || { echo "include/oku/ holds: $found"; exit 1; }
found=$(cd "$work/prefix/include/oku/detail" && ls | tr '\n' ' ')
[ "$found" = "energyhistogram.h highpassfilter.h parameters.h rates.h settings.h " ] ||
  { echo "include/oku/detail/ holds: $found"; exit 1; }
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
echo "installed package: a bare build installs; pkg-config and find_package consumers passed"
