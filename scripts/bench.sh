#!/usr/bin/env bash
# Builds and runs the benchmarks against the in-process test cloud, inside a
# private network namespace and with /tmp on a tmpfs, as on the device (the
# request calls write their answers to fixed files under /tmp; on a disk-backed
# /tmp the truncating open of that file alone costs a few hundred microseconds).
# Prints each benchmark's own ratio line. Arguments go to every benchmark.
# push_bench measures the push channel's acknowledgement path over loopback TLS.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
build=${BUILD_DIR:-build/bench}
cmake -S . -B "$build" -DKX_BUILD_TESTS=ON -DKX_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target transport_bench verify_bench account_bench push_bench -j"$(nproc)" >/dev/null
inner='mount -t tmpfs tmpfs /tmp && ip link set lo up && for b in "$@"; do "$b" ${KX_BENCH_ARGS:-}; done'
export KX_BENCH_ARGS="$*"
if [ "$(id -u)" -eq 0 ]; then
  unshare --net --mount -- bash -c "$inner" bench "$build"/bench/transport_bench "$build"/bench/verify_bench "$build"/bench/account_bench \
    "$build"/bench/push_bench
else
  unshare --user --map-root-user --net --mount -- bash -c "$inner" bench "$build"/bench/transport_bench "$build"/bench/verify_bench "$build"/bench/account_bench \
    "$build"/bench/push_bench
fi
