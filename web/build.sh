#!/usr/bin/env bash
# Builds the npm package in web/dist/ from the library's unchanged sources:
# emscripten compiles them, with the package's small glue, into one
# standalone wasm file, which is embedded in dist/index.js; the worklet
# processor becomes one self-contained file. Beside it, the same sources
# compiled natively with web/test/native.c give the program the tests
# compare the package with (BUILD/native).
# Usage: web/build.sh [build folder]   (default: build-web)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build-web}"
mkdir -p "$build"
for tool in emcc esbuild zopfli node g++; do
  command -v "$tool" >/dev/null || { echo "web: $tool not found (make web-setup installs it)" >&2; exit 1; }
done
version="$(sed -n 's/^project(OKUVAD VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")"
sources=("$root"/src/{audioanalyzer,agc,measure,inputpath}.cpp "$root"/OKUVAD/{OKUVAD,OKUAGC,oku,status,facts}.cpp)
flags=(-std=c++17 -ffp-contract=off -DOKU_VERSION_STRING="\"$version\"" -I"$root/include" -I"$root/include/oku"
       -I"$root/include/oku/detail" -I"$root/src" -I"$root/OKUVAD")
exports=(malloc free oku_version oku_rates oku_input_rates oku_analysis_rate oku_max_channels oku_last_error
         oku_status_message oku_status_name oku_chunk_samples oku_vad_result_name oku_assessment_name
         oku_agc_control_name okuweb_unknown_keys okuweb_layout
         oku_vad_create oku_vad_open oku_vad_process oku_vad_process_f32 oku_vad_take oku_vad_nonfinite oku_vad_flush
         oku_vad_reset oku_vad_destroy oku_agc_open oku_agc_process oku_agc_process_f32 oku_agc_info
         oku_agc_nonfinite oku_agc_destroy)
list="$(printf '_%s,' "${exports[@]}")"
g++ -O2 "${flags[@]}" "${sources[@]}" "$root/web/test/native.c" -o "$build/native" &
native=$!
trap 'kill "$native" 2>/dev/null || true' EXIT  # a failed wasm build ends the native one too
# Debian's emscripten finds its acorn through NODE_PATH. -O3 (rather than -Oz)
# keeps the analyzer within 1.5x of native for 4 KB more of download, and
# NDEBUG leaves out the library's assertions, as the Release build does; emmalloc
# is the smaller allocator (the library allocates only at creation). Exceptions stay
# inside the library (its boundary catches them), as wasm exceptions.
# The input path alone is built for WebAssembly's SIMD (its dot products and
# float conversion have lanes for it, with the same results as the scalar
# code); for the rest, the compiler's own vectorising made the analyzer slower.
export NODE_PATH="${NODE_PATH:-/usr/share/nodejs}"
emcc -c -O3 -DNDEBUG -flto -fwasm-exceptions -msimd128 "${flags[@]}" "$root/src/inputpath.cpp" -o "$build/inputpath.o"
emcc -O3 -DNDEBUG -flto -fwasm-exceptions "${flags[@]}" \
  "${sources[@]/*inputpath.cpp/$build/inputpath.o}" "$root/web/src/glue.cpp" \
  -sSTANDALONE_WASM --no-entry -sALLOW_MEMORY_GROWTH=1 -sMALLOC=emmalloc -sEXPORTED_FUNCTIONS="${list%,}" \
  -o "$build/oku.wasm"
wait "$native" || { echo "web: the native test program did not build" >&2; exit 1; }
trap - EXIT
node "$root/web/scripts/assemble.mjs" "$build/oku.wasm" "$version"
