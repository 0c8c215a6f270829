#!/usr/bin/env bash
# Builds the libFuzzer targets with clang, AddressSanitizer and UndefinedBehaviorSanitizer
# (build tree build/fuzz: the engine, the simulator's reader and the frame sources, nothing
# else) and runs each for a bounded time from its seed corpus in tests/fuzz/corpus/<target>.
# A crash stops the stage; the input that caused it is left in build/fuzz/findings/<target>/
# and belongs, once fixed, in tests/fuzz/regressions/<target>/.
#   scripts/fuzz.sh [SECONDS]   seconds per target (default 60, or $ZOLTPANO_FUZZ_SECONDS)
# ZOLTPANO_JOBS sets the build parallelism (default 2); the targets run side by side.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-${ZOLTPANO_FUZZ_SECONDS:-60}}
jobs=${ZOLTPANO_JOBS:-2}
targets=(c_interface sweep_dir image_folder)
build=build/fuzz

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_C_FLAGS=-fsanitize=fuzzer-no-link -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link \
  -DZOLTPANO_SANITIZE=address,undefined -DZOLTPANO_FUZZ=ON \
  -DZOLTPANO_TESTS=OFF -DZOLTPANO_BENCHMARKS=OFF -DZOLTPANO_TOOLS=ON >/dev/null
cmake --build "$build" -j "$jobs" --target "${targets[@]/#/fuzz_}"

# The corpus grows in build/fuzz/corpus; the repository's seeds and regressions are only read
# (and every regression is run first, under clang's sanitizers, which see more than GCC's).
run() {
  local t=$1 work="$build/corpus/$t" found="$build/findings/$t"
  mkdir -p "$work" "$found"
  local rc=0
  ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=0 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$build/tests/fuzz/fuzz_$t" "$work" "tests/fuzz/corpus/$t" "tests/fuzz/regressions/$t" \
      -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 -max_len=8192 \
      -artifact_prefix="$found/" -print_final_stats=1 >"$build/fuzz_$t.log" 2>&1 || rc=$?
  local execs speed
  execs=$(grep -Eo 'stat::number_of_executed_units: *[0-9]+' "$build/fuzz_$t.log" | grep -Eo '[0-9]+$' || echo '?')
  speed=$(grep -Eo 'stat::average_exec_per_sec: *[0-9]+' "$build/fuzz_$t.log" | grep -Eo '[0-9]+$' || echo '?')
  if [ "$rc" -eq 0 ]; then
    echo "fuzz_$t: ${seconds}s, $execs executions ($speed/s), corpus $(ls "$work" | wc -l) inputs: no finding"
  else
    echo "fuzz_$t: FAILED after $execs executions; see $build/fuzz_$t.log and $found/" >&2
    tail -n 60 "$build/fuzz_$t.log" >&2
  fi
  return "$rc"
}

# All targets at once: each gets its full time, the stage takes one of them.
pids=()
for t in "${targets[@]}"; do
  run "$t" &
  pids+=($!)
done
status=0
for p in "${pids[@]}"; do wait "$p" || status=1; done
exit "$status"
