#!/usr/bin/env bash
# Builds and runs every benchmark (bench/*_bench.cpp) against the in-process
# local cloud, inside a private network namespace and with /tmp on a tmpfs, as
# on the device (the request calls write their answers to fixed files under
# /tmp; on a disk-backed /tmp the truncating open of that file alone costs a
# few hundred microseconds). Prints each benchmark's own ratio lines.
# Arguments go to every benchmark; BENCH=name runs one of them.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
build=${BUILD_DIR:-build/bench}
cmake -S . -B "$build" -DKX_BUILD_TESTS=ON -DKX_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
if [ -n "${BENCH:-}" ]; then
  benches=("$BENCH")
else
  benches=()
  for source in bench/*_bench.cpp; do benches+=("$(basename "$source" .cpp)"); done
fi
cmake --build "$build" --target "${benches[@]}" -j"$(nproc)" >/dev/null
export KX_BENCH_ARGS="$*"
scripts/in-netns.sh bash -c 'for b in "$@"; do "$b" ${KX_BENCH_ARGS:-}; done' bench "${benches[@]/#/$PWD/$build/bench/}"
