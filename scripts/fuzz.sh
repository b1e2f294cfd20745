#!/usr/bin/env bash
# libFuzzer targets (fuzz/*_fuzz.cpp) against the library built with clang,
# AddressSanitizer and UndefinedBehaviorSanitizer.
#   scripts/fuzz.sh [SECONDS] [TARGET...]   each target SECONDS long (default 30)
# The repository's seeds (fuzz/corpus/<target>/) are copied into the build's
# working corpus, which keeps what the fuzzer finds between runs; inputs that
# once crashed (fuzz/regressions/<target>/) are replayed first. A crash leaves
# its input in build/fuzz/crashes/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
[ $# -gt 0 ] && shift
dir=${BUILD_ROOT:-build}/fuzz

# clang and its sanitizer and fuzzer runtimes are needed only here.
scripts/install-deps.sh clang libclang-rt-14-dev
cc=$(command -v clang-14 || command -v clang)
cxx=$(command -v clang++-14 || command -v clang++)
flags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g"
cmake -S . -B "$dir" -DKX_FUZZ=ON -DKX_BUILD_EXAMPLES=OFF -DKX_BUILD_TESTS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for f in fuzz/*_fuzz.cpp; do targets+=("$(basename "$f" .cpp)"); done
fi
cmake --build "$dir" --target "${targets[@]}" -j"${JOBS:-2}" >/dev/null

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
# One target: its regressions, then SECONDS of fuzzing. The verdict line goes
# to $dir/<target>.summary; the result is the target's.
fuzz_one() {
  local t=$1 bin=$dir/fuzz/$1 work=$dir/corpus/$1 crashes=$dir/crashes/$1 log=$dir/$1.log runs
  mkdir -p "$work" "$crashes"
  if [ -d "fuzz/regressions/$t" ] && ls "fuzz/regressions/$t"/* >/dev/null 2>&1; then
    if ! "$bin" fuzz/regressions/"$t"/* >"$dir/$t.regressions.log" 2>&1; then
      echo "$t: a kept regression input fails again (log $dir/$t.regressions.log)" >"$dir/$t.summary"
      grep -E 'runtime error|ERROR|SUMMARY' "$dir/$t.regressions.log" | head -5
      return 1
    fi
  fi
  if "$bin" -max_total_time="$seconds" -print_final_stats=1 -timeout=10 -rss_limit_mb=1536 \
       -artifact_prefix="$crashes/" "$work" "fuzz/corpus/$t" >"$log" 2>&1; then
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo '?')
    echo "$t: $runs executions, no crash" >"$dir/$t.summary"
  else
    echo "$t: CRASH (input in $crashes, log $log)" >"$dir/$t.summary"
    grep -E 'ERROR|SUMMARY|#[0-9]+ ' "$log" | head -30
    return 1
  fi
}

# The targets run side by side, one per core (FUZZ_JOBS overrides).
parallel=${FUZZ_JOBS:-$(nproc)}
echo "== fuzzing ${#targets[@]} targets, ${seconds}s each, $parallel at a time"
for t in "${targets[@]}"; do
  rm -f "$dir/$t.summary"
  fuzz_one "$t" &
  while [ "$(jobs -rp | wc -l)" -ge "$parallel" ]; do wait -n || true; done
done
wait
# The verdicts decide the result: a target that crashed, replayed a failing
# regression or left none fails the run.
status=0
echo "== fuzz summary (${seconds}s per target)"
for t in "${targets[@]}"; do
  if [ -s "$dir/$t.summary" ]; then cat "$dir/$t.summary"; else echo "$t: no verdict"; status=1; fi
  grep -q ', no crash$' "$dir/$t.summary" 2>/dev/null || status=1
done
exit $status
