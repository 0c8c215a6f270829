#!/usr/bin/env bash
# Digests of `zoltpano stitch --mode exact` on every shared clip and on every simulator preset
# (both camera models, with and without the gyroscope): one line per input with the MD5 of the
# panorama JPEG and of its CSV less the timing columns, every run with the same RANSAC seed. Run it before and after a change that
# must not move the default engine, and diff the two outputs.
#   scripts/exact_digests.sh [ZOLTPANO_BINARY] > digests.txt
# Needs ../shared/data/videos for the clips (skipped when absent). Work files: build/exact-digests.
set -euo pipefail
cd "$(dirname "$0")/.."
zp=${1:-build/host/tools/zoltpano}
work=build/exact-digests
rm -rf "$work"
mkdir -p "$work"

# The translation RANSAC seeds itself from std::random_device, so two runs may differ where it
# decides a frame. A preloaded shim makes every random_device draw the same number: runs repeat.
cat > "$work/fixed_random_device.cpp" <<'CPP'
#include <random>
unsigned int std::random_device::_M_getval() { return 17u; }
CPP
g++ -O2 -fPIC -shared "$work/fixed_random_device.cpp" -o "$work/libfixed_random_device.so"
export LD_PRELOAD=$PWD/$work/libfixed_random_device.so

# The CSV without the columns that hold times measured on this machine.
csv_digest() {
  python3 - "$1" <<'PY'
import csv, hashlib, sys
rows = list(csv.reader(open(sys.argv[1])))
keep = [i for i, name in enumerate(rows[0]) if not name.endswith("_ms") or name == "time_ms"]
text = "\n".join(",".join(r[i] for i in keep if i < len(r)) for r in rows)
print(hashlib.md5(text.encode()).hexdigest())
PY
}

digest() {  # NAME INPUT [stitch options...]
  local name=$1 input=$2
  shift 2
  "$zp" stitch "$input" --mode exact --no-restart -q -o "$work/$name" "$@" >/dev/null 2>&1 || true
  local jpeg=missing f
  # A picture the engine's verdict refused is the same bytes under another name.
  for f in "$work/$name.jpg" "$work/${name}_refused.jpg"; do
    [ -f "$f" ] && jpeg=$(md5sum < "$f" | cut -c1-32)
  done
  printf '%-40s jpeg %s csv %s\n' "$name" "$jpeg" "$(csv_digest "$work/$name.csv")"
}

for clip in ../shared/data/videos/*.mp4; do
  [ -f "$clip" ] || continue
  digest "clip_$(basename "$clip" .mp4)" "$clip"
done

for preset in steady handheld shaky too-fast goes-back wrong-axis drifting textureless; do
  for model in translate rotate; do
    sweep="$work/sweep_${preset}_$model"
    "$zp" simulate -q -o "$sweep" -p "$preset" -m "$model" >/dev/null
    digest "${preset}_$model" "$sweep"
    digest "${preset}_${model}_gyro" "$sweep" --gyro "$sweep/gyro.csv"
  done
done
