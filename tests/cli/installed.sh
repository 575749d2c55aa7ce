#!/bin/sh
# Installs the build BUILD into a fresh prefix under WORK (a folder name with a
# space in it, as a user's may have) and runs the installed command there on
# RECORDING with an empty library path: it must find libOKUVAD through its own
# relative run path, wherever the prefix is.
# Usage: installed.sh BUILD WORK RECORDING
set -eu
build=$1
work=$2
recording=$3
rm -rf "$work"
prefix="$work/a prefix"
cmake --install "$build" --prefix "$prefix" > "$work.log" 2>&1 || { cat "$work.log"; exit 1; }
oku="$prefix/bin/oku"
[ -x "$oku" ] || { echo "no command at $oku"; exit 1; }
runpath=$(readelf -d "$oku" | sed -n 's/.*(RUNPATH).*\[\(.*\)\]/\1/p')
case "$runpath" in
  '$ORIGIN/'*) ;;
  *) echo "the installed command's run path is '$runpath', not relative to its folder"; exit 1 ;;
esac
# The copy moved elsewhere still runs: nothing points back at the first prefix.
mv "$prefix" "$work/moved"
out=$(env -u LD_LIBRARY_PATH "$work/moved/bin/oku" vad --format csv "$recording")
echo "$out" | grep -q ',segment,' || { echo "no segment from the installed command:"; echo "$out"; exit 1; }
echo "installed command: runs from a moved prefix with run path $runpath"
