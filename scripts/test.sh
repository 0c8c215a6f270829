#!/usr/bin/env bash
# Installs what is missing, builds and runs every test: host, host under AddressSanitizer and
# UndefinedBehaviorSanitizer, the sensor and engine tests under ThreadSanitizer, the fuzz targets
# for a minute each (scripts/fuzz.sh), the Android compile check (armeabi-v7a and arm64-v8a with
# clang, API 24 and 26), and the armhf (32-bit ARM, NEON) and aarch64 (64-bit ARM, NEON and SVE)
# cross builds, whose tests run side by side under qemu-arm and qemu-aarch64.
#   scripts/test.sh [--host-only | --no-arm | --no-armhf | --no-aarch64] [--no-viewer]
#     --host-only    only the host build and its tests
#     --no-viewer    no viewer stage (saved panoramas opened in Photo Sphere Viewer in Chromium)
#     --no-arm       host, sanitizer, fuzzing and Android compile stages, no ARM cross build
#     --no-armhf     as above with the aarch64 cross build only
#     --no-aarch64   as above with the armhf cross build only
# ZOLTPANO_JOBS sets the build and test parallelism (default: the number of cores, at most 2).
# Build trees: build/host, build/asan, build/tsan, build/fuzz, build/armhf, build/aarch64; the
# root file systems: .armhf-rootfs and .aarch64-rootfs (or $ZOLTPANO_ARMHF_ROOTFS,
# $ZOLTPANO_AARCH64_ROOTFS).
set -euo pipefail
cd "$(dirname "$0")/.."

cores=$(nproc 2>/dev/null || echo 2)
jobs=${ZOLTPANO_JOBS:-$((cores < 2 ? cores : 2))}

host_only=0
viewer=1
armhf=1
aarch64=1
for a in "$@"; do
  case "$a" in
    --host-only) host_only=1; armhf=0; aarch64=0; viewer=0 ;;
    --no-viewer) viewer=0 ;;
    --no-arm) armhf=0; aarch64=0 ;;
    --no-armhf) armhf=0 ;;
    --no-aarch64) aarch64=0 ;;
    -h|--help) sed -n '2,16p' "$0"; exit 0 ;;
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
setup_args=()
[ "$armhf" -eq 0 ] || setup_args+=(--armhf)
[ "$aarch64" -eq 0 ] || setup_args+=(--aarch64)
[ "$viewer" -eq 0 ] || setup_args+=(--viewer)
bash scripts/setup.sh "${setup_args[@]}"
end

begin "host build (Release, -Werror)"
cmake -S . -B build/host -G Ninja -DCMAKE_BUILD_TYPE=Release -DZOLTPANO_WERROR=ON
cmake --build build/host -j "$jobs"
end
begin "host tests"
run_ctest build/host

# A real panorama viewer reads what the tool saves: a sweep with the phone held in landscape and
# one with it held upright (the camera's sensor frames turned a quarter counter-clockwise, as a
# phone whose sensor sits at 90 degrees delivers them, stitched with --orientation 90), each
# opened in Photo Sphere Viewer in headless Chromium (scripts/viewer_check.sh). The tool's own
# GPano packet must give the full width of a whole turn at the engine's field of view along the
# sweep (2 pi f, f from 62.2 degrees across the long side or 39.8 across the short), the picture
# must come out upright (wider than high), and the viewer must read the crop and draw it.
if [ "$viewer" -eq 1 ]; then
  begin "viewer (Photo Sphere Viewer in headless Chromium)"
  vdir=build/viewer
  rm -rf "$vdir" && mkdir -p "$vdir"
  zp=build/host/tools/zoltpano
  xmp() { exiftool -s3 "-XMP-GPano:$2" "$1"; }
  seen=()
  # name, simulated frames, the side the sweep runs along in the frames fed and its field of view
  for sweep in "landscape 1920x1080 1920 62.2" "portrait 1080x1920 1080 39.8"; do
    read -r name size along fov <<<"$sweep"
    "$zp" simulate --preset handheld --size "$size" --frames 100 --photo-scale 2 \
      --out "$vdir/$name" --force >"$vdir/$name.log"
    input=$vdir/$name orientation=0
    if [ "$name" = portrait ]; then
      input=$vdir/$name-sensor.mkv orientation=90
      ffmpeg -v error -f rawvideo -pix_fmt nv21 -s "$size" -r 30 -i "$vdir/$name/frames.nv21" \
        -vf transpose=2 -c:v ffv1 -y "$input"
    fi
    "$zp" stitch "$input" -o "$vdir/$name" --orientation "$orientation" >>"$vdir/$name.log"
    jpg="$vdir/$name.jpg"
    read -r w h < <(exiftool -s3 -ImageWidth -ImageHeight "$jpg" | paste -sd' ')
    [ "$w" -gt "$h" ] || { echo "$jpg: ${w}x$h is not upright" >&2; exit 1; }
    [ "$(xmp "$jpg" ProjectionType)" = equirectangular ] || { echo "$jpg: no GPano packet" >&2; exit 1; }
    full=$(xmp "$jpg" FullPanoWidthPixels)
    want=$(awk -v s="$along" -v f="$fov" 'BEGIN { printf "%d", 2 * atan2(0, -1) * (s / 2) / (sin(f * atan2(0, -1) / 360) / cos(f * atan2(0, -1) / 360)) }')
    [ $((full - want)) -ge -2 ] && [ $((full - want)) -le 2 ] ||
      { echo "$jpg: full width $full, a whole turn is $want" >&2; exit 1; }
    bash scripts/viewer_check.sh "$jpg" --screenshot "$vdir/$name-view.png" \
      --expect-full-width "$full" \
      --expect-full-height "$(xmp "$jpg" FullPanoHeightPixels)" \
      --expect-cropped-width "$w" --expect-cropped-height "$h" \
      --expect-cropped-x "$(xmp "$jpg" CroppedAreaLeftPixels)" \
      --expect-cropped-y "$(xmp "$jpg" CroppedAreaTopPixels)" | tee "$vdir/$name.json"
    seen+=("$name ${w}x$h of ${full}x$(xmp "$jpg" FullPanoHeightPixels)")
  done
  end "$(IFS=,; echo "${seen[*]}" | sed 's/,/, /g'); screenshots in $vdir"
fi

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
  # platform's headers and Clang for both ABIs, and the sensor code at API 26, where the old
  # sensor manager call is deprecated (docs/building.md says what it cannot prove).
  mkdir -p build
  for check in "armeabi-v7a 24" "arm64-v8a 24" "arm64-v8a 26"; do
    read -r abi api <<<"$check"
    begin "Android compile check ($abi, API $api)"
    log="build/android-compile-check-$abi-$api.log"
    ZOLTPANO_JOBS=$jobs bash scripts/android_compile_check.sh --abi "$abi" --api "$api" | tee "$log"
    end "$(sed -n 's/^android compile check: \(.*\) in [0-9]*s$/\1/p' "$log")"
  done
fi

# ARM cross builds: both trees are built first, then their tests run side by side under qemu,
# one test at a time each (qemu runs one thread per program), logs in the build trees.
arm_trees=()
[ "$armhf" -eq 0 ] || arm_trees+=(armhf)
[ "$aarch64" -eq 0 ] || arm_trees+=(aarch64)
for tree in "${arm_trees[@]}"; do
  begin "$tree root file system"
  bash "scripts/make_${tree}_rootfs.sh"
  end
  # Benchmarks are built to prove they compile for ARM, not run: qemu timings mean nothing.
  begin "$tree cross build (Release, -Werror)"
  cmake -S . -B "build/$tree" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZOLTPANO_WERROR=ON \
    -DCMAKE_TOOLCHAIN_FILE="cmake/toolchain-$tree.cmake"
  cmake --build "build/$tree" -j "$jobs"
  end
done

# The Highway targets each emulated CPU ran, from the kernel tests' "Highway targets tested"
# lines in ctest's log: "cpu: targets" per CPU, the default CPU named $2.
targets_by_cpu() {
  awk -v dflt="$2" '
    / Test: / { name = $NF }
    /^Highway targets tested:/ {
      cpu = dflt
      if (name ~ /^cpu_[^.]+[.]/) { cpu = name; sub(/^cpu_/, "", cpu); sub(/[.].*/, "", cpu) }
      t = $0; sub(/^Highway targets tested: /, "", t)
      if (!(cpu in seen)) { order[++n] = cpu; seen[cpu] = t }
      else if (length(t) > length(seen[cpu])) seen[cpu] = t
    }
    END { for (i = 1; i <= n; ++i) printf "%s%s: %s", (i > 1 ? "; " : ""), order[i], seen[order[i]] }
  ' "$1/Testing/Temporary/LastTest.log"
}

if [ "${#arm_trees[@]}" -gt 0 ]; then
  begin "ARM tests under qemu (${arm_trees[*]} side by side)"
  declare -A pid=()
  tree_jobs=$((jobs / ${#arm_trees[@]} > 0 ? jobs / ${#arm_trees[@]} : 1))
  for tree in "${arm_trees[@]}"; do
    (
      t0=$SECONDS
      status=0
      ctest --test-dir "build/$tree" --output-on-failure -j "$tree_jobs" \
        >"build/$tree/ctest-summary.log" 2>&1 || status=$?
      echo "$((SECONDS - t0))" >"build/$tree/ctest-wall"
      exit "$status"
    ) &
    pid[$tree]=$!
  done
  failed=()
  for tree in "${arm_trees[@]}"; do wait "${pid[$tree]}" || failed+=("$tree"); done
  rows=()
  for tree in "${arm_trees[@]}"; do
    log="build/$tree/ctest-summary.log"
    dflt="default CPU"
    [ "$tree" != aarch64 ] || dflt=max
    rows+=("$(printf '  %-38s %5ds wall  %s tests passed (%s skipped); Highway targets: %s' \
      "$tree under qemu-${tree/armhf/arm}" "$(cat "build/$tree/ctest-wall")" "$(ctest_count "$log")" \
      "$(grep -c '\*\*\*Skipped' "$log" || true)" "$(targets_by_cpu "build/$tree" "$dflt")")")
  done
  if [ "${#failed[@]}" -gt 0 ]; then
    for tree in "${failed[@]}"; do
      echo "== $tree tests failed: build/$tree/ctest-summary.log"
      cat "build/$tree/ctest-summary.log"
    done
    exit 1
  fi
  for tree in "${arm_trees[@]}"; do tail -n 3 "build/$tree/ctest-summary.log"; done
  end
  summary+=("${rows[@]}")
fi

echo
echo "== summary"
printf '%s\n' "${summary[@]}"
echo "total $((SECONDS - total_start))s wall: all stages passed"
