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
status=0
summary=()
for t in "${targets[@]}"; do
  bin=$dir/fuzz/$t
  work=$dir/corpus/$t
  crashes=$dir/crashes/$t
  mkdir -p "$work" "$crashes"
  if [ -d "fuzz/regressions/$t" ] && ls "fuzz/regressions/$t"/* >/dev/null 2>&1; then
    echo "== $t: replaying regressions"
    if ! "$bin" fuzz/regressions/"$t"/* >"$dir/$t.regressions.log" 2>&1; then
      status=1
      summary+=("$t: a kept regression input fails again (log $dir/$t.regressions.log)")
      grep -E 'runtime error|ERROR|SUMMARY' "$dir/$t.regressions.log" | head -5
      continue
    fi
  fi
  echo "== $t: fuzzing ${seconds}s"
  log=$dir/$t.log
  if "$bin" -max_total_time="$seconds" -print_final_stats=1 -timeout=10 -rss_limit_mb=1536 \
       -artifact_prefix="$crashes/" "$work" "fuzz/corpus/$t" >"$log" 2>&1; then
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo '?')
    summary+=("$t: $runs executions, no crash")
  else
    status=1
    summary+=("$t: CRASH (input in $crashes, log $log)")
    grep -E 'ERROR|SUMMARY|#[0-9]+ ' "$log" | head -30
  fi
done
echo "== fuzz summary (${seconds}s per target)"
printf '%s\n' "${summary[@]}"
exit $status
