#!/usr/bin/env bash
# ThreadSanitizer stage: builds the gyroscope and engine test programs with -fsanitize=thread
# and runs them; any report fails the stage. Only these programs: they are the ones with a
# second thread (the sensor polling thread) next to the caller's.
#   scripts/test_tsan.sh [JOBS]      build tree: build/tsan
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${1:-${ZOLTPANO_JOBS:-2}}

programs=(test_gyroscope_lib test_sensor_interface test_host_sensor test_zolt_pano_api
          test_orrery_engine test_zolt_pano_engine test_zolt_pano_ext)

cmake -S . -B build/tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZOLTPANO_SANITIZE=thread \
  -DZOLTPANO_BENCHMARKS=OFF -DZOLTPANO_TOOLS=OFF -DZOLTPANO_WERROR=ON
cmake --build build/tsan -j "$jobs" --target "${programs[@]}"

# halt_on_error: the first report fails the program at once, with its stacks. The suppressions
# cover uninstrumented libraries only; each says why.
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/scripts/tsan_suppressions.txt ${TSAN_OPTIONS:-}"
failed=()
for p in "${programs[@]}"; do
  echo "-- $p"
  if ! "build/tsan/tests/$p" --gtest_brief=1 2>"build/tsan/$p.stderr"; then
    failed+=("$p")
    grep -v '^PanoEngine ' "build/tsan/$p.stderr" | tail -n 60 || true
  elif grep -q 'WARNING: ThreadSanitizer' "build/tsan/$p.stderr"; then
    failed+=("$p")
    grep -A30 'WARNING: ThreadSanitizer' "build/tsan/$p.stderr" | head -n 60
  fi
done
if [ "${#failed[@]}" -gt 0 ]; then
  echo "test_tsan.sh: failed: ${failed[*]}" >&2
  exit 1
fi
echo "test_tsan.sh: ${#programs[@]} programs clean"
