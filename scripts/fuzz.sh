#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, ASan, UBSan) and runs each for a
# bounded time from its seed corpus. Usage: scripts/fuzz.sh [SECONDS] [BUILD_DIR]
# Findings (crash-*, timeout-*, oom-*) are written to fuzz/findings/; the run
# fails if any target fails.
set -euo pipefail
seconds=${1:-60}
build=${2:-build-fuzz}
cd "$(dirname "$0")/.."
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOKU_ASSERTS=ON \
  -DOKU_SANITIZE=address,undefined -DOKU_BUILD_FUZZ=ON -DOKU_BUILD_TESTS=OFF -DOKU_BUILD_TOOLS=OFF \
  -DOKU_BUILD_EXAMPLES=OFF -DOKU_WERROR=ON >/dev/null
cmake --build "$build" -j "$(nproc)"
mkdir -p fuzz/findings
status=0
for target in vad_api_fuzz agc_api_fuzz params_fuzz many_fuzz; do
  work=$(mktemp -d)
  dict=()
  [ -f "fuzz/$target.dict" ] && dict=(-dict="fuzz/$target.dict")
  echo "== $target: ${seconds} s"
  if ! "$build/fuzz/$target" "${dict[@]}" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
      -artifact_prefix=fuzz/findings/ -print_final_stats=1 "$work" "fuzz/corpus/$target" > "$work.log" 2>&1; then
    status=1
    grep -E "ERROR|SUMMARY|check failed|runtime error|Test unit written" "$work.log" || tail -20 "$work.log"
  fi
  grep -E "stat::number_of_executed_units|stat::new_units_added" "$work.log" | sed 's/^/   /'
  echo "   corpus: $(ls "$work" | wc -l) new inputs, $(ls "fuzz/corpus/$target" | wc -l) seeds"
  rm -rf "$work" "$work.log"
done
exit $status
