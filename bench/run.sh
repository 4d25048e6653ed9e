#!/bin/sh
# bench/run.sh: builds nurel and the benchmark programs in Release, installs the pinned Node.js
# MCP servers and command-line tools (bench/package-lock.json), and prints the four figures.
#
#   bench/run.sh [nurel_bench options]     e.g. bench/run.sh --figures 3 --runs 3
#   bench/run.sh --peers [runs] [figures]  the browser path next to @playwright/mcp and
#                                          chrome-devtools-mcp on the same Chromium (peers.mjs)
#   bench/run.sh --snapshots [runs]        only the snapshots of the saved pages (--peers, figure 5)
#   bench/run.sh --tasks [runs]            whole tasks next to agent-browser and @playwright/cli, and
#                                          through MCP next to the two MCP servers (tasks.mjs)
#   bench/run.sh --hidden                  how many of the hidden texts of tests/pages/hidden.html each
#                                          tool's readings show, and how many kept ones (hidden.mjs)
#
# NUREL_BENCH_BUILD names the build folder (default: build-bench at the top of the tree).
set -eu
bench=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$bench")
build=${NUREL_BENCH_BUILD:-$root/build-bench}

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DNUREL_BENCH=ON >/dev/null

# npm ci only when the installed tree is missing or older than the lock file.
install_peers() {
  if [ ! -f "$bench/node_modules/.package-lock.json" ] ||
    [ "$bench/package-lock.json" -nt "$bench/node_modules/.package-lock.json" ]; then
    (cd "$bench" && npm ci --no-audit --no-fund --ignore-scripts --loglevel=error >/dev/null)
  fi
}
if [ "${1:-}" = --peers ] || [ "${1:-}" = --snapshots ]; then
  # The whole browser path next to the Node.js servers, on the same Chromium.
  cmake --build "$build" -j 2 --target nurel nurel-browser >/dev/null
  install_peers
  figures=${3:-12345}
  [ "$1" = --snapshots ] && figures=5
  exec node "$bench/peers.mjs" "$build" "${2:-3}" "$figures"
fi
if [ "${1:-}" = --tasks ]; then
  # Tasks done as an agent does them, next to the command-line tools and the MCP servers.
  cmake --build "$build" -j 2 --target nurel nurel-browser >/dev/null
  install_peers
  exec node "$bench/tasks.mjs" "$build" "${2:-3}"
fi
if [ "${1:-}" = --hidden ]; then
  # The hidden-text corpus read by nurel and by the peers, one session each.
  cmake --build "$build" -j 2 --target nurel nurel-browser >/dev/null
  install_peers
  exec node "$bench/hidden.mjs" "$build"
fi
cmake --build "$build" -j 2 --target nurel nurel_bench nurel_bench_floor nurel_bench_floor_dynamic \
  nurel_bench_run nurel_bench_relay nurel_bench_json >/dev/null

node_modules=$bench/node_modules
if command -v node >/dev/null && command -v npm >/dev/null; then
  install_peers
  set -- --node "playwright-mcp=$node_modules/@playwright/mcp/cli.js" \
    --node "chrome-devtools-mcp=$node_modules/chrome-devtools-mcp/build/src/bin/chrome-devtools-mcp.js" \
    "$@"
else
  echo "run.sh: node or npm not found; figure 2 is measured without the Node.js servers" >&2
fi

exec "$build/bench/nurel_bench" --nurel "$build/nurel" --floor "$build/bench/nurel_bench_floor" \
  --dynamic-floor "$build/bench/nurel_bench_floor_dynamic" --runner "$build/bench/nurel_bench_run" \
  --relay "$build/bench/nurel_bench_relay" "$@"
