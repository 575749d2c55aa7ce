#!/usr/bin/env bash
# Part of `make test`: runs the npm package's tests when its tools are
# installed (make web-setup), and says why not otherwise.
cd "$(dirname "$0")/.."
missing=()
for tool in emcc esbuild zopfli node g++; do command -v "$tool" >/dev/null || missing+=("$tool"); done
if [ ${#missing[@]} -gt 0 ]; then
  echo "web: tests skipped: ${missing[*]} not installed (make web-setup installs them)"
  exit 0
fi
make --no-print-directory web/dist/index.js && (cd web && node --test --test-timeout=300000 test/*.test.mjs)
