#!/bin/bash
# Runs one fuzz target from its seed corpus for a while, or for a number of inputs.
#
#   fuzz/run.sh <build folder> <target> <seconds> [more libFuzzer options]
#   fuzz/run.sh build-fuzz reply 60
#   fuzz/run.sh build-fuzz cli 0 -runs=10000000 -jobs=2 -workers=2
#
# Targets: cli, mcp_line, reply, printed, and the back end's request and snapshot. The seeds in
# fuzz/corpus/<target> are copied into a scratch corpus, so what the fuzzer finds never lands in
# the repository by itself; a crashing input is written to <build folder>/fuzz-<target>/crash-*,
# and belongs in fuzz/corpus/<target> once its fix is in.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="$(cd "$1" && pwd)" target="$2" seconds="$3"
shift 3
work="$build/fuzz-$target"
mkdir -p "$work/corpus"
cp -n "$here/corpus/$target"/* "$work/corpus/" 2>/dev/null || true
options=(-timeout=30 -rss_limit_mb=2048 -print_final_stats=1 "-artifact_prefix=$work/")
if [ "$seconds" != 0 ]; then options+=("-max_total_time=$seconds"); fi
if [ -f "$here/$target.dict" ]; then options+=("-dict=$here/$target.dict"); fi
cd "$work"
exec "$build/fuzz/${target}_fuzz" "${options[@]}" "$@" corpus
