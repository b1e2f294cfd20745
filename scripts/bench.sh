#!/usr/bin/env bash
# Builds and runs every benchmark (bench/*_bench.cpp) against the in-process
# local cloud, inside a private network namespace and with /tmp on a tmpfs, as
# on the device (the request calls write their answers to fixed files under
# /tmp; on a disk-backed /tmp the truncating open of that file alone costs a
# few hundred microseconds). Prints each benchmark's own ratio lines. The
# signed-call benchmark runs twice: on the normal build (TLS sessions shared
# between calls) and on a build with -DKX_CURL_SHARE=OFF (build/bench-noshare).
# Arguments go to every benchmark; BENCH=name runs one of them (on the normal
# build only).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
build=${BUILD_DIR:-build/bench}
noshare=${NOSHARE_BUILD_DIR:-build/bench-noshare}
cmake -S . -B "$build" -DKX_BUILD_TESTS=ON -DKX_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
if [ -n "${BENCH:-}" ]; then
  benches=("$BENCH")
else
  benches=()
  for source in bench/*_bench.cpp; do benches+=("$(basename "$source" .cpp)"); done
fi
cmake --build "$build" --target "${benches[@]}" -j"$(nproc)" >/dev/null
programs=("${benches[@]/#/$PWD/$build/bench/}")
if [ -z "${BENCH:-}" ]; then
  cmake -S . -B "$noshare" -DKX_BUILD_TESTS=ON -DKX_BUILD_BENCH=ON -DKX_CURL_SHARE=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$noshare" --target account_bench -j"$(nproc)" >/dev/null
  programs+=("$PWD/$noshare/bench/account_bench")
fi
export KX_BENCH_ARGS="$*"
scripts/in-netns.sh bash -c 'for b in "$@"; do echo "== $b"; "$b" ${KX_BENCH_ARGS:-}; done' bench "${programs[@]}"
