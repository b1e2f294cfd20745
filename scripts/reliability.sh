#!/usr/bin/env bash
# Reliability checks of the library: that it never crashes, leaks or corrupts
# memory in its host process, whatever the network, the server or the caller.
#
#   scripts/reliability.sh sweep [--ci]     allocation-failure sweep of every call in the table
#                                           (--ci: TLS calls every 25th allocation, sign-in in full)
#   scripts/reliability.sh valgrind [--all|--ci] memcheck over the reliability suites (every
#                                           exported call, hostile servers, 50 push cycles); --all:
#                                           every suite; --ci: the calls and 10 push cycles
#   scripts/reliability.sh tsan             thread checks and 50 push cycles under ThreadSanitizer
#   scripts/reliability.sh fuzz [SECONDS]   every libFuzzer target for SECONDS (default 30) each
#   scripts/reliability.sh heap [CALL...]   the heap each signed call holds at most, by owner
#                                           (library, libcurl, OpenSSL, other); a measurement
#   scripts/reliability.sh ci               sweep --ci, valgrind --ci, tsan and 10 s of fuzzing per
#                                           target, as CI runs them
#
# Each check has its own build directory under build/ (BUILD_ROOT overrides)
# and runs the test programs inside a private network namespace. The sweep
# and the valgrind pass can reuse an existing test build instead
# (REUSE_BUILD=build/test, as CI does after scripts/test.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
root=${BUILD_ROOT:-build}
jobs=${JOBS:-2}

configure() { # dir, extra cmake arguments...
  local dir=$1; shift
  if [ -n "${REUSE_BUILD:-}" ] && [ "$dir" = "$REUSE_BUILD" ]; then return; fi
  rm -rf "$dir/testcloud"
  cmake -S . -B "$dir" -DKX_BUILD_TESTS=ON -DKX_BUILD_EXAMPLES=OFF "$@" >/dev/null
}

sweep() {
  local dir=${REUSE_BUILD:-$root/reliability} report status=0
  configure "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo
  cmake --build "$dir" --target alloc_sweep -j"$jobs" >/dev/null
  report=$dir/sweep-report.txt
  : >"$report"
  if [ "${1:-}" = "--ci" ]; then
    # The TLS handshake is most of a secure call's allocations: a coarser
    # stride there, and one secure call (sign-in, the frame's model) in full.
    # Three processes side by side, each in a namespace of its own: sign-in
    # in full, and the rest of the table in two shards.
    local full='Table/Sweep.EveryAllocationFailureIsSurvived/KX_AUTH_AUTHENTICATE' pids=() shard
    KX_SWEEP_REPORT=$report.full scripts/in-netns.sh "$dir/tests/reliability/alloc_sweep" --gtest_brief=1 \
      --gtest_filter="$full" >"$report.full.log" 2>&1 &
    pids+=($!)
    for shard in 0 1; do
      KX_SWEEP_REPORT=$report.$shard KX_SWEEP_TLS_STRIDE=25 GTEST_TOTAL_SHARDS=2 GTEST_SHARD_INDEX=$shard \
        scripts/in-netns.sh "$dir/tests/reliability/alloc_sweep" --gtest_brief=1 --gtest_filter="-$full" \
        >"$report.$shard.log" 2>&1 &
      pids+=($!)
    done
    for pid in "${pids[@]}"; do wait "$pid" || status=1; done
    for shard in full 0 1; do
      # A failure with the lines that say why, then the verdicts.
      grep -E -A4 'Failure$' "$report.$shard.log" || true
      grep -E '^\[  (PASSED|FAILED) |FAULT' "$report.$shard.log" || true
      cat "$report.$shard" >>"$report" 2>/dev/null || true
      rm -f "$report.$shard"
    done
  else
    KX_SWEEP_REPORT=$report scripts/in-netns.sh "$dir/tests/reliability/alloc_sweep" --gtest_brief=1 || status=1
  fi
  echo "== sweep report ($report)"
  cat "$report"
  return $status
}

valgrind_check() {
  local dir=${REUSE_BUILD:-$root/reliability} suites status=0 prog log pids=()
  command -v valgrind >/dev/null || scripts/install-deps.sh valgrind
  configure "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo
  if [ "${1:-}" = "--ci" ]; then
    # CI: every exported call once and 10 push cycles; the hostile matrix runs
    # under AddressSanitizer and LeakSanitizer in the sanitizer suite run.
    cmake --build "$dir" --target reliability_calls_test push_cycle_test -j"$jobs" >/dev/null
    suites="$dir/tests/reliability/reliability_calls_test $dir/tests/reliability/push_cycle_test"
    export KX_PUSH_CYCLES=${KX_PUSH_CYCLES:-10}
  elif [ "${1:-}" = "--all" ]; then
    cmake --build "$dir" -j"$jobs" >/dev/null
    suites=$(find "$dir/tests" -maxdepth 2 -type f -perm -u+x -name '*_test' | sort)
  else
    cmake --build "$dir" --target reliability_calls_test hostile_test push_cycle_test -j"$jobs" >/dev/null
    suites="$dir/tests/reliability/reliability_calls_test $dir/tests/reliability/hostile_test"
    suites="$suites $dir/tests/reliability/push_cycle_test"
  fi
  # The programs run side by side, each in a namespace of its own.
  for prog in $suites; do
    [ -x "$prog" ] || continue
    log=$dir/valgrind-$(basename "$prog").log
    # Wall-clock cases (a 20-second stall) say nothing about memory and do
    # not hold their timing under valgrind.
    scripts/in-netns.sh valgrind --quiet --leak-check=full --show-leak-kinds=definite,indirect \
      --errors-for-leak-kinds=definite,indirect --error-exitcode=99 --num-callers=40 \
      --suppressions=tests/valgrind.supp --gen-suppressions=all \
      "$prog" --gtest_brief=1 '--gtest_filter=-*Stalled*' >"$log" 2>&1 &
    pids+=("$!:$prog")
  done
  for entry in "${pids[@]}"; do
    prog=${entry#*:}
    log=$dir/valgrind-$(basename "$prog").log
    echo "== valgrind $(basename "$prog")"
    if wait "${entry%%:*}"; then
      grep -E '^\[  (PASSED|SKIPPED) ' "$log" || true
    else
      status=1
      echo "FAILED: $prog (log: $log)"
      grep -E '^==[0-9]+==|FAILED' "$log" | head -60
    fi
  done
  return $status
}

tsan() {
  local dir=$root/tsan status=0
  configure "$dir" -DKX_TSAN=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo
  cmake --build "$dir" --target threads_test push_cycle_test -j"$jobs" >/dev/null
  # ASLR with high entropy breaks older ThreadSanitizer runtimes' memory map.
  export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp}
  for suite in threads_test push_cycle_test; do
    scripts/in-netns.sh setarch "$(uname -m)" -R "$dir/tests/reliability/$suite" --gtest_brief=1 || status=1
  done
  return $status
}

heap() {
  local dir=${REUSE_BUILD:-$root/reliability}
  configure "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo
  cmake --build "$dir" --target heap_peak -j"$jobs" >/dev/null
  scripts/in-netns.sh "$dir/tests/reliability/heap_peak" "$@"
}

case "${1:-}" in
  sweep) shift; sweep "$@" ;;
  valgrind) shift; valgrind_check "$@" ;;
  tsan) shift; tsan ;;
  heap) shift; heap "$@" ;;
  fuzz) shift; scripts/fuzz.sh "$@" ;;
  ci)
    # Every check runs even when an earlier one failed; the result is the sum.
    status=0
    sweep --ci || status=1
    valgrind_check --ci || status=1
    tsan || status=1
    scripts/fuzz.sh "${KX_CI_FUZZ_SECONDS:-10}" || status=1
    exit $status
    ;;
  *) sed -n '2,16p' "$0"; exit 2 ;;
esac
