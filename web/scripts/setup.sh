#!/usr/bin/env bash
# Installs the package's development tools from npm into web/node_modules, as
# package-lock.json pins them: TypeScript, Vite and webpack, which the tests
# of the typings and of the bundlers use (esbuild comes from Debian). Does
# nothing when they are installed as the lock file says.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v npm >/dev/null || { echo "web: npm not found (make web-setup installs it)" >&2; exit 1; }
if [ node_modules/.package-lock.json -nt package-lock.json ]; then exit 0; fi
echo "web: installing TypeScript, Vite and webpack into web/node_modules"
npm ci --no-audit --no-fund --loglevel=error
