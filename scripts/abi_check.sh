#!/usr/bin/env bash
# Programs built against libOKUVAD.so.1 must keep working: compares the
# library of this tree with the last release's (1.2.0, built here from the
# repository's history) with abidiff, and fails on any removed or changed
# function or variable, or any change abidiff calls incompatible (a struct
# that grew, a changed signature). Added functions are what minor versions
# are for.
# Usage: scripts/abi_check.sh [build folder of this tree, with libOKUVAD.so]   (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"
release=59a5fa3cbe1fb5431265ac038e854708d0e350f8  # the tree that was released as 1.2.0
scripts/setup.sh abigail-tools
if ! git cat-file -e "$release^{commit}" 2>/dev/null; then
  echo "abi: skipped: the 1.2.0 release ($release) is not in this clone's history"
  exit 0
fi
old="build-abi/1.2.0"
if [ ! -e "$old/build/libOKUVAD.so" ]; then
  rm -rf "$old" && mkdir -p "$old/tree"
  git archive "$release" | tar -x -C "$old/tree"
  cmake -S "$old/tree" -B "$old/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOKU_BUILD_TESTS=OFF \
        -DOKU_BUILD_TOOLS=OFF -DOKU_BUILD_EXAMPLES=OFF -DOKU_BUILD_GST=OFF > /dev/null
  cmake --build "$old/build" --target OKUVAD > /dev/null
fi
[ -e "$build/libOKUVAD.so" ] || cmake --build "$build" --target OKUVAD > /dev/null
headers=include
[ -d "$headers" ] || headers=OKUVAD
set +e
report=$(abidiff --headers-dir1 "$old/tree/OKUVAD" --headers-dir2 "$headers" "$old/build/libOKUVAD.so" "$build/libOKUVAD.so")
status=$?
set -e
echo "$report"
# abidiff's status: bit 1 an error, bit 2 a usage error, bit 8 an incompatible change.
if (( status & 11 )) || grep -Eq '[1-9][0-9]* (Removed|Changed)' <<< "$report"; then
  echo "abi: libOKUVAD.so.1 is not compatible with 1.2.0 (abidiff status $status)"
  exit 1
fi
echo "abi: compatible with 1.2.0: every function and type of 1.2.0 is as it was"
