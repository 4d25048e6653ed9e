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
