#!/usr/bin/env bash
# The main job on the bundled default input: installs what is missing, builds, makes a handheld
# 1920 x 1080 sweep from the default photo with the simulator and stitches it into a panorama
# through the engine's C interface, as a camera app with a gyroscope would: the sweep's
# gyroscope events reach the engine's sensor thread through the host sensor service, in step
# with the frames. Everything lands in out/.
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
"$zp" stitch "$out/sweep" --gyro "$out/sweep/gyro.csv" -o "$out/pano"
echo "run.sh: panorama in $out/pano.jpg, report in $out/pano_report.png, per-frame log in $out/pano.csv"
echo "run.sh: the sweep it was made from is in $out/sweep (truth.png is the ideal panorama, gyro.csv"
echo "run.sh: the gyroscope events the engine was given)"
