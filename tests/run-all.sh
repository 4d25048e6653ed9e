#!/bin/bash
# Runs every test: the unit and end-to-end suite in a normal build (including the slow ones),
# then again under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

echo "== build and test =="
# The build the quick start made, as it was configured (warnings are errors in the two builds
# below, with g++ and with clang).
cmake -S . -B build >/dev/null
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

echo "== the same tests under AddressSanitizer and UndefinedBehaviorSanitizer =="
# Every report stops the process that makes it (the test, or a nurel it started) and is also
# written to a file of its own, so a report in a child whose failure a test expected is still
# seen: the stage fails unless the report folder stays empty.
reports="$PWD/build-asan/sanitizer-reports"
rm -rf "$reports" && mkdir -p "$reports"
export ASAN_OPTIONS="halt_on_error=1:abort_on_error=1:detect_leaks=1:log_path=$reports/asan"
export UBSAN_OPTIONS="halt_on_error=1:abort_on_error=1:print_stacktrace=1:log_path=$reports/ubsan"
cmake -S . -B build-asan -DNUREL_WERROR=ON -DNUREL_SANITIZE=ON >/dev/null
cmake --build build-asan -j "$jobs"
status=0
# Packaging and the shells' completions are the normal build's: nothing of them runs here.
ctest --test-dir build-asan --output-on-failure -j "$jobs" -LE dist || status=$?
if [ -n "$(ls -A "$reports")" ]; then
  echo "sanitizer reports:" && cat "$reports"/*
  status=1
fi
if [ "$status" -ne 0 ]; then exit "$status"; fi
unset ASAN_OPTIONS UBSAN_OPTIONS

echo "== fuzzing: each target for a minute from its seeds =="
cmake -S . -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DNUREL_FUZZ=ON -DNUREL_SANITIZE=ON \
  -DBUILD_TESTING=OFF -DNUREL_WERROR=ON >/dev/null
cmake --build build-fuzz -j "$jobs" --target nurel_fuzzers
# As many targets at a time as there are cores, each for its minute.
fuzzOne() {
  log="build-fuzz/fuzz-$1.log"
  if ! fuzz/run.sh build-fuzz "$1" 60 >"$log" 2>&1; then
    tail -n 60 "$log"
    return 1
  fi
  echo "$1: $(grep -E "^Done [0-9]+ runs" "$log" | tail -n 1)"
}
export -f fuzzOne
printf '%s\n' cli mcp_line reply printed request snapshot | xargs -P "$jobs" -I{} bash -c 'fuzzOne {}'

echo "== the MCP TypeScript SDK's client drives nurel mcp =="
if ! command -v npm >/dev/null; then
  echo "npm is missing: apt-get install nodejs npm" >&2
  exit 1
fi
(cd tests/sdk && npm ci --no-audit --no-fund)
node tests/sdk/sdk_test.mjs build/nurel build/tests/nurel_fake_browser
