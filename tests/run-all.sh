#!/bin/bash
# Runs every test: the unit and end-to-end suite in a normal build (including the slow ones),
# then again under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

echo "== build and test =="
cmake -S . -B build -DNUREL_WERROR=ON >/dev/null
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

echo "== the MCP TypeScript SDK's client drives nurel mcp =="
if ! command -v npm >/dev/null; then
  echo "npm is missing: apt-get install nodejs npm" >&2
  exit 1
fi
(cd tests/sdk && npm ci --no-audit --no-fund)
node tests/sdk/sdk_test.mjs build/nurel build/tests/nurel_fake_browser
