#!/usr/bin/env bash
# Builds the npm package in web/dist/ from the library's unchanged sources:
# emscripten compiles them, with the small key-list helper, into one
# standalone wasm file, which is embedded in dist/wasm.js; the worklet
# processor becomes one self-contained file.
# Usage: web/build.sh [build folder]   (default: build-web)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build-web}"
mkdir -p "$build"
for tool in emcc esbuild zopfli node; do
  command -v "$tool" >/dev/null || { echo "web: $tool not found (scripts/setup.sh --web installs it)" >&2; exit 1; }
done
version="$(sed -n 's/^project(OKUVAD VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")"
exports=(malloc free oku_version oku_rates oku_nearest_rate oku_last_error oku_status_message oku_struct_size
         oku_chunk_samples oku_vad_result_name oku_assessment_name oku_agc_control_name okuweb_unknown_keys
         oku_vad_create_ex oku_vad_process oku_vad_results oku_vad_flush oku_vad_reset oku_vad_destroy
         oku_agc_create oku_agc_process oku_agc_info oku_agc_destroy)
list="$(printf '_%s,' "${exports[@]}")"
# Debian's emscripten finds its acorn through NODE_PATH. -O3 (rather than -Oz)
# keeps the analyzer within 2x of native for 4 KB more of download; emmalloc
# is the smaller allocator (the library allocates only at creation). Exceptions stay
# inside the library (its boundary catches them), as wasm exceptions.
NODE_PATH="${NODE_PATH:-/usr/share/nodejs}" emcc -O3 -flto -std=c++17 -ffp-contract=off -fwasm-exceptions \
  -DOKU_VERSION_STRING="\"$version\"" -I"$root/src" -I"$root/OKUVAD" \
  "$root"/src/{audioanalyzer,agc,measure}.cpp "$root"/OKUVAD/{OKUVAD,OKUAGC,oku,status,facts}.cpp \
  "$root/web/src/keys.cpp" \
  -sSTANDALONE_WASM --no-entry -sALLOW_MEMORY_GROWTH=1 -sMALLOC=emmalloc -sEXPORTED_FUNCTIONS="${list%,}" \
  -o "$build/oku.wasm"
node "$root/web/scripts/assemble.mjs" "$build/oku.wasm" "$version"
