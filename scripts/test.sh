#!/usr/bin/env bash
# Installs what is missing, builds and runs every test: host, host under AddressSanitizer and
# UndefinedBehaviorSanitizer, the sensor and engine tests under ThreadSanitizer, the fuzz targets
# for a minute each (scripts/fuzz.sh), the Android compile check (armv7a-linux-androideabi with
# clang) and the armhf (32-bit ARM, NEON) cross build under qemu-arm.
#   scripts/test.sh [--host-only | --no-armhf]
#     --host-only   only the host build and its tests
#     --no-armhf    host, sanitizer, fuzzing and Android compile stages, no armhf cross build
# ZOLTPANO_JOBS sets the build and test parallelism (default: the number of cores, at most 2).
# Build trees: build/host, build/asan, build/tsan, build/fuzz, build/armhf; the armhf root file
# system: .armhf-rootfs (or $ZOLTPANO_ARMHF_ROOTFS).
set -euo pipefail
cd "$(dirname "$0")/.."

cores=$(nproc 2>/dev/null || echo 2)
jobs=${ZOLTPANO_JOBS:-$((cores < 2 ? cores : 2))}

host_only=0
armhf=1
for a in "$@"; do
  case "$a" in
    --host-only) host_only=1; armhf=0 ;;
    --no-armhf) armhf=0 ;;
    -h|--help) sed -n '2,10p' "$0"; exit 0 ;;
    *) echo "test.sh: unknown option '$a'" >&2; exit 2 ;;
  esac
done

# Each stage's wall time and the processor time of its programs (on a shared or loaded
# machine the second says what the stage costs).
summary=()
stage_start=0
tck=$(getconf CLK_TCK 2>/dev/null || echo 100)
child_cpu() { local f; read -r -a f < <(sed 's/^.*) //' /proc/$$/stat); echo $(( f[13] + f[14] )); }
begin() { echo; echo "== $1"; stage_name="$1"; stage_start=$SECONDS; stage_cpu=$(child_cpu); }
end() {
  summary+=("$(printf '%-40s %5ds wall %5ds cpu  %s' "$stage_name" $((SECONDS - stage_start)) \
    $(( ($(child_cpu) - stage_cpu) / tck )) "${1:-}")")
}
# "N tests": what ctest ran, from its summary line.
ctest_count() { grep -Eo 'tests passed, [0-9]+ tests failed out of [0-9]+' "$1" | grep -Eo '[0-9]+$' || echo '?'; }
run_ctest() {
  local dir=$1 log
  log="$dir/ctest-summary.log"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs" | tee "$log"
  local skipped
  skipped=$(grep -c '\*\*\*Skipped' "$log" || true)
  end "$(ctest_count "$log") tests passed ($skipped skipped)"
}
total_start=$SECONDS

begin "setup"
if [ "$armhf" -eq 1 ]; then bash scripts/setup.sh --armhf; else bash scripts/setup.sh; fi
end

begin "host build (Release, -Werror)"
cmake -S . -B build/host -G Ninja -DCMAKE_BUILD_TYPE=Release -DZOLTPANO_WERROR=ON
cmake --build build/host -j "$jobs"
end
begin "host tests"
run_ctest build/host

if [ "$host_only" -eq 0 ]; then
  begin "ASan+UBSan build (RelWithDebInfo)"
  cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DZOLTPANO_SANITIZE=address,undefined -DZOLTPANO_BENCHMARKS=OFF -DZOLTPANO_WERROR=ON
  cmake --build build/asan -j "$jobs"
  end
  begin "ASan+UBSan tests"
  run_ctest build/asan
  # The gyroscope's polling thread next to the caller's: sensor and engine tests under TSan.
  begin "TSan build and tests (sensor, engine)"
  bash scripts/test_tsan.sh "$jobs"
  end "clean"
  begin "fuzzing (clang, ASan+UBSan, 60 s a target)"
  ZOLTPANO_JOBS=$jobs bash scripts/fuzz.sh 60 | tee build/fuzz-summary.log
  end "$(grep -c 'no finding' build/fuzz-summary.log) targets without a finding"
fi

if [ "$host_only" -eq 0 ]; then
  # Compile only, no NDK: proves the Android-only code and every library file meet the
  # platform's headers and Clang for armeabi-v7a (docs/building.md says what it cannot prove).
  begin "Android compile check (armv7a, clang)"
  mkdir -p build
  ZOLTPANO_JOBS=$jobs bash scripts/android_compile_check.sh | tee build/android-compile-check.log
  end "$(grep -Eo '[0-9]+ files compiled' build/android-compile-check.log)"
fi

if [ "$armhf" -eq 1 ]; then
  begin "armhf root file system"
  bash scripts/make_armhf_rootfs.sh
  end
  # Benchmarks are built to prove they compile for ARM, not run: qemu timings mean nothing.
  begin "armhf cross build (Release, -Werror)"
  cmake -S . -B build/armhf -G Ninja -DCMAKE_BUILD_TYPE=Release -DZOLTPANO_WERROR=ON \
    -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
  cmake --build build/armhf -j "$jobs"
  end
  begin "armhf tests under qemu-arm"
  run_ctest build/armhf
fi

echo
echo "== summary"
printf '%s\n' "${summary[@]}"
echo "total $((SECONDS - total_start))s wall: all stages passed"
