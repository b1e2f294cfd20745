#!/usr/bin/env bash
# The one test command: installs what is missing, configures, builds and runs
# the whole suite, each test program in a private network namespace.
#   scripts/test.sh              normal build in build/test
#   scripts/test.sh --sanitize   AddressSanitizer + UndefinedBehaviorSanitizer build in build/asan
# Further arguments go to ctest (for example -R transport_test).
set -euo pipefail
cd "$(dirname "$0")/.."
mode=normal
if [ "${1:-}" = "--sanitize" ]; then mode=sanitize; shift; fi
scripts/install-deps.sh
if [ "$mode" = sanitize ]; then
  build=${BUILD_DIR:-build/asan}
  # The suites only: the benchmarks and examples are built by the normal run.
  extra=(-DKX_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug -DKX_BUILD_BENCH=OFF -DKX_BUILD_EXAMPLES=OFF)
  export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
  export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
else
  build=${BUILD_DIR:-build/test}
  extra=()
fi
# Fresh test-cloud credentials for every run: a new answer-signing key pair and CA.
rm -rf "$build/testcloud"
cmake -S . -B "$build" -DKX_BUILD_TESTS=ON -DKX_BUILD_BENCH=ON "${extra[@]}" >/dev/null
cmake --build "$build" -j"$(nproc)"
# Each test program runs in a private network namespace of its own
# (scripts/in-netns.sh, set up by tests/CMakeLists.txt), so suites may run side
# by side; most of their time is spent waiting on deliberate stalls.
ctest --test-dir "$build" --output-on-failure -j"${KX_TEST_JOBS:-$(( $(nproc) + 1 ))}" "$@"
