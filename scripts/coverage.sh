#!/usr/bin/env bash
# Line coverage of the library and of each front end under the test suite:
# a build instrumented with --coverage (build-cov), every test but those
# labelled live or long, then
#   - gcovr over the library (src/, OKUVAD/), the command (tools/) and the
#     GStreamer elements (gst/);
#   - coverage.py over the Python package while python/tests run;
#   - Node's test coverage over the npm package's sources while web/test runs
#     (when its tools are installed).
# Prints one table; docs/testing.md keeps the figures of the last run.
# Usage: scripts/coverage.sh [build folder]   (default: build-cov)
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build-cov}"
scripts/setup.sh gcovr python3-coverage
jobs=${JOBS:-$(nproc)}
flags="--coverage -O0 -fprofile-update=atomic"  # atomic: the thread tests would race on the counters
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DOKU_ASSERTS=ON \
      -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS=--coverage \
      -DCMAKE_SHARED_LINKER_FLAGS=--coverage -DCMAKE_MODULE_LINKER_FLAGS=--coverage ${CMAKE_FLAGS:-} > /dev/null
cmake --build "$build" -j "$jobs" > "$build/build.log" 2>&1 || { cat "$build/build.log"; exit 1; }
find "$build" -name '*.gcda' -delete
# The suite as make test runs it, less the day-long stream; its failures are
# the suite's business, not the figures'.
(cd "$build" && ctest -j "$jobs" -LE 'live|long' > ctest.log 2>&1) ||
  echo "coverage: some tests failed (see $build/ctest.log); the figures count what ran"

percent() {  # gcovr's line percentage over the files under the given folders (data of $build only)
  local args=()
  for folder in "$@"; do args+=(--filter "$PWD/$folder/"); done
  gcovr --root . "$build" --object-directory "$build" "${args[@]}" --exclude '.*_test\.c(pp)?$' 2>/dev/null |
    awk '/^TOTAL/ { printf "%.1f%% (%d of %d lines)\n", 100 * $3 / $2, $3, $2 }'
}
library=$(percent src OKUVAD)
command=$(percent tools/oku)
gst=$(percent gst)

python=$(cd "$build" && OKU_LIBRARY="$PWD/libOKUVAD.so" /usr/bin/python3 -m coverage run --data-file=python.coverage \
           --source="$OLDPWD/python/oku" -m unittest discover -s "$OLDPWD/python/tests" > python-coverage.log 2>&1;
         /usr/bin/python3 -m coverage report --data-file=python.coverage | awk '/^TOTAL/ { print $NF }')

web="-"
if command -v emcc > /dev/null && command -v node > /dev/null; then
  make --no-print-directory web/dist/index.js > /dev/null
  web=$(cd web && node --test --experimental-test-coverage test/*.test.mjs 2>&1 |
          awk '/all files/ { gsub(/\|/, " "); print $4 "%" }')
fi

printf '| part | line coverage |\n|---|---:|\n'
printf '| library (src/, OKUVAD/) | %s |\n' "$library"
printf '| oku command (tools/oku/) | %s |\n' "$command"
printf '| GStreamer elements (gst/) | %s |\n' "$gst"
printf '| Python package (python/oku/) | %s |\n' "$python"
printf '| npm package (web/src/, JavaScript) | %s |\n' "${web:--}"
