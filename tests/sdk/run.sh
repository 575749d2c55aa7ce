#!/bin/sh
# The Windows SDK zip, as a user gets it: made by cpack in the build BUILD,
# unpacked into an empty folder under WORK; there, under Wine (EMULATOR), the
# example runs on RECORDING and finds its two sentences, and LOADER (a host
# that loads the DLL with LoadLibrary and finds the plain functions with
# GetProcAddress) runs beside the DLL with nothing else in the folder. The
# DLL imports nothing but Windows' own libraries (OBJDUMP reads its imports).
# Usage: run.sh BUILD WORK EMULATOR LOADER OBJDUMP RECORDING VERSION
set -eu
build=$1 work=$2 emulator=$3 loader=$4 objdump=$5 recording=$6 version=$7
rm -rf "$work"
mkdir -p "$work/unpacked" "$work/alone"
(cd "$build" && cpack -G ZIP -B "$work/package" > "$work/cpack.log") || { cat "$work/cpack.log"; exit 1; }
zip=$(ls "$work/package"/OKUVAD-"$version"-win*.zip)
(cd "$work/unpacked" && cmake -E tar xf "$zip")
root=$(ls -d "$work/unpacked"/OKUVAD-*)
for f in bin/OKUVAD.dll bin/vad_example.exe lib/OKUVAD.lib lib/OKUVAD.def include/okuvad.h include/oku.h README.md LICENSE; do
  [ -f "$root/$f" ] || { echo "the zip lacks $f"; ls -R "$root"; exit 1; }
done
grep -q "oku_vad_create" "$root/lib/OKUVAD.def" || { echo "OKUVAD.def lacks oku_vad_create"; exit 1; }

# Only system DLLs among the imports: the C++ runtime is inside.
imports=$("$objdump" -p "$root/bin/OKUVAD.dll" | sed -n 's/^[[:space:]]*DLL Name: //p' | tr 'A-Z' 'a-z' | sort -u | tr '\n' ' ')
for name in $imports; do
  case "$name" in
    kernel32.dll|msvcrt.dll|ucrtbase.dll|api-ms-win-*) ;;
    *) echo "OKUVAD.dll imports $name, which a Windows machine does not have"; exit 1 ;;
  esac
done

export WINEDEBUG=-all
out=$(cd "$root/bin" && "$emulator" ./vad_example.exe "$recording" | tr -d '\r')
echo "$out"
[ "$(echo "$out" | grep -c '^[12] ')" -eq 2 ] || { echo "the example did not find two segments"; exit 1; }

cp "$root/bin/OKUVAD.dll" "$loader" "$work/alone/"
loaded=$(cd "$work/alone" && "$emulator" ./"$(basename "$loader")" | tr -d '\r')
echo "$loaded"
[ "$loaded" = "loaded OKUVAD $version" ] || { echo "the host could not load the DLL alone"; exit 1; }
echo "Windows SDK: the zip unpacks, its example runs, and the DLL loads alone (imports: $imports)"
