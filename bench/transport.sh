#!/bin/sh
# bench/transport.sh: builds nurel-browser in Release and compares its two DevTools transports,
# warm: its own Chromium on a pipe, and a Chromium it didn't start over a WebSocket.
#
#   bench/transport.sh [runs]        (30 by default)
#
# NUREL_BENCH_BUILD names the build folder (default: build-bench at the top of the tree).
set -eu
bench=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$bench")
build=${NUREL_BENCH_BUILD:-$root/build-bench}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DNUREL_BENCH=ON >/dev/null
cmake --build "$build" -j 2 --target nurel-browser >/dev/null
exec node "$bench/transport.mjs" "$build" "${1:-30}"
