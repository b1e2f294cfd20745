#!/usr/bin/env bash
# Builds and runs the benchmarks against the in-process test cloud, inside a
# private network namespace and with /tmp on a tmpfs, as on the device (the
# request calls write their answers to fixed files under /tmp; on a disk-backed
# /tmp the truncating open of that file alone costs a few hundred microseconds).
# Prints each benchmark's own ratio line. The signed-call benchmark runs twice:
# on the normal build (TLS sessions shared between calls) and on a build with
# -DKX_CURL_SHARE=OFF (build/bench-noshare). Arguments go to every benchmark.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
build=${BUILD_DIR:-build/bench}
noshare=${NOSHARE_BUILD_DIR:-build/bench-noshare}
benches=(transport_bench verify_bench account_bench gzip_bench)
cmake -S . -B "$build" -DKX_BUILD_TESTS=ON -DKX_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target "${benches[@]}" -j"$(nproc)" >/dev/null
cmake -S . -B "$noshare" -DKX_BUILD_TESTS=ON -DKX_BUILD_BENCH=ON -DKX_CURL_SHARE=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$noshare" --target account_bench -j"$(nproc)" >/dev/null
inner='mount -t tmpfs tmpfs /tmp && ip link set lo up && for b in "$@"; do "$b" ${KX_BENCH_ARGS:-}; done'
export KX_BENCH_ARGS="$*"
programs=()
for b in "${benches[@]}"; do programs+=("$build/bench/$b"); done
programs+=("$noshare/bench/account_bench")
if [ "$(id -u)" -eq 0 ]; then
  unshare --net --mount -- bash -c "$inner" bench "${programs[@]}"
else
  unshare --user --map-root-user --net --mount -- bash -c "$inner" bench "${programs[@]}"
fi
