#!/usr/bin/env bash
# The full soak: for each preview size, a sweep past the end of its canvas, 10,000 frames
# through one engine and 1,000 Initial/Release cycles (`zoltpano soak`), each size in a
# process of its own so that its peak resident memory (VmHWM) is its own. Ends with the
# figures as a Markdown table. Exit status 1 when a check failed in any size.
#   scripts/soak.sh [--frames N] [--cycles N] [--sizes "1280x720 1920x1080"] [--asan]
#     --asan   use the ASan+UBSan build (build/asan): LeakSanitizer checks the full counts at
#              exit; memory growth is reported, not judged, and the speed means nothing there
# Growth is judged on the memory in use (allocated, not freed); resident memory is reported.
# Builds the zoltpano command (target zoltpano_cli) in build/host (or build/asan), configuring
# it when needed. ZOLTPANO_JOBS sets the build parallelism (default: the cores, at most 2).
set -euo pipefail
cd "$(dirname "$0")/.."

frames=10000
cycles=1000
sizes="1280x720 1920x1080"
build=build/host
while [ $# -gt 0 ]; do
  case "$1" in
    --frames) frames=$2; shift 2 ;;
    --cycles) cycles=$2; shift 2 ;;
    --sizes) sizes=$2; shift 2 ;;
    --asan) build=build/asan; shift ;;
    -h|--help) sed -n '2,11p' "$0"; exit 0 ;;
    *) echo "soak.sh: unknown option '$1'" >&2; exit 2 ;;
  esac
done
cores=$(nproc 2>/dev/null || echo 2)
jobs=${ZOLTPANO_JOBS:-$((cores < 2 ? cores : 2))}

if [ ! -f "$build/CMakeCache.txt" ]; then
  if [ "$build" = build/asan ]; then
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DZOLTPANO_SANITIZE=address,undefined -DZOLTPANO_BENCHMARKS=OFF -DZOLTPANO_WERROR=ON
  else
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZOLTPANO_WERROR=ON
  fi
fi
cmake --build "$build" -j "$jobs" --target zoltpano_cli

out="$build/soak"
mkdir -p "$out"
status=0
rows=()
for size in $sizes; do
  echo "== $size: $frames frames, $cycles cycles"
  log="$out/soak-$size.log"
  if ! "$build/tools/zoltpano" soak --size "$size" --frames "$frames" --cycles "$cycles" \
      --out-dir "$out" | tee "$log"; then
    status=1
  fi
  # figures size=.. frames_per_s=.. frame_cpu_ms=.. cycles_per_s=.. cycle_cpu_ms=..
  # vmhwm_mb=.. baseline_mb=..
  # frames_growth_mb=.. cycles_growth_mb=.. frames_in_use_mb=.. cycles_in_use_mb=..
  # threads=idle/end time_s=..
  line=$(grep '^figures ' "$log" || true)
  get() { echo "$line" | tr ' ' '\n' | sed -n "s/^$1=//p"; }
  if [ -n "$line" ]; then
    rows+=("| $size | $(get frames_per_s) ($(get frame_cpu_ms) ms) | $(get cycles_per_s) ($(get cycle_cpu_ms) ms) | $(get vmhwm_mb) | $(get baseline_mb) | $(get frames_growth_mb) / $(get frames_in_use_mb) | $(get cycles_growth_mb) / $(get cycles_in_use_mb) | $(get threads) |")
  fi
done

echo
echo "== soak figures ($build, $frames frames, $cycles cycles, $(nproc) cores)"
echo "| preview | frames/s (processor time a frame) | cycles/s (processor time a cycle) | peak RSS (VmHWM), MB | RSS before the first engine, MB | growth over the frames, MB: RSS / in use | growth over the cycles, MB: RSS / in use | threads (after the first engine / at the end) |"
echo "|---|---|---|---|---|---|---|---|"
printf '%s\n' "${rows[@]}"
[ "$status" -eq 0 ] && echo "soak.sh: every check passed" || echo "soak.sh: a check FAILED"
exit "$status"
