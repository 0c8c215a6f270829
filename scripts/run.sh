#!/usr/bin/env bash
# The main job on the bundled default input: installs what is missing, builds, makes a handheld
# 1920 x 1080 sweep from the default photo with the simulator and, where the build has the
# stitcher, stitches it into a panorama. Everything lands in out/.
#   scripts/run.sh [OUT_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
out=${1:-out}
cores=$(nproc 2>/dev/null || echo 2)
jobs=$((cores < 2 ? cores : 2))

bash scripts/setup.sh
cmake -S . -B build/host -G Ninja -DCMAKE_BUILD_TYPE=Release
cmake --build build/host -j "$jobs" --target zoltpano_cli

zp=build/host/tools/zoltpano
mkdir -p "$out"
"$zp" simulate --preset handheld --size 1920x1080 --out "$out/sweep" --force
if "$zp" stitch --help >/dev/null 2>&1; then
  "$zp" stitch "$out/sweep" -o "$out/pano"
  echo "run.sh: panorama in $out/pano.jpg, report in $out/pano_report.png, per-frame log in $out/pano.csv"
else
  echo "run.sh: sweep in $out/sweep (frames.nv21, truth.csv, gyro.csv, truth.png); this build has no stitcher yet"
fi
