#!/usr/bin/env bash
# The verdict on every simulator preset (with and without the gyroscope), the captures the
# verdict exists to refuse, and the shared clips, as two builds of the tool give it: a Markdown
# table of "passed" or "refused: <reason>" per input.
#   scripts/verdict_table.sh OLD_ZOLTPANO NEW_ZOLTPANO [WORKDIR]
# Either binary may be the same. Builds before the verdict moved into the library judged only
# --mode enhanced (its "quality gate" line), and show "-" in exact mode.
set -euo pipefail
old=$1 new=$2 work=${3:-/tmp/verdict_table}
clips=${ZOLTPANO_CLIPS:-$(cd "$(dirname "$0")/../.." && pwd)/shared/data/videos}
mkdir -p "$work"

# The verdict line of one run: the refusal's reason, or passed.
verdict() {
  local out
  out=$("$@" --no-progress 2>&1 || true)
  if grep -q "^zoltpano stitch: refused: " <<<"$out"; then
    sed -n "s/^zoltpano stitch: refused: \(.*\); the picture is kept as.*/refused: \1/p" <<<"$out" | head -1
  elif grep -q -E "^(verdict|quality gate): .*: passed$" <<<"$out"; then
    echo passed
  elif grep -q "^zoltpano stitch: " <<<"$out"; then
    grep "^zoltpano stitch: " <<<"$out" | head -1 | cut -c1-80
  else
    echo "-"
  fi
}

row() {  # name, then the stitch arguments after the input's place
  local name=$1; shift
  printf '| %s | %s | %s |\n' "$name" "$(verdict "$old" stitch "$@" -o "$work/old")" \
    "$(verdict "$new" stitch "$@" -o "$work/new")"
}

sim() { local d=$work/$1; shift; [[ -d $d ]] || "$new" simulate -q --out "$d" "$@"; }

echo "| input | before | after |"
echo "|---|---|---|"
for p in steady handheld shaky too-fast goes-back wrong-axis drifting textureless; do
  sim "$p" -p "$p"
  for mode in enhanced exact; do
    row "$p ($mode)" "$work/$p" --mode "$mode"
    row "$p ($mode, gyroscope)" "$work/$p" --mode "$mode" --gyro "$work/$p/gyro.csv"
  done
done
# Other frame sizes, the portrait camera, every direction and the turning camera.
for shape in "1920x1080 right translate" "720x1280 right translate" "1280x720 left translate" \
            "1280x720 down translate" "1280x720 up rotate" "1920x1080 left rotate"; do
  read -r size dir model <<<"$shape"
  name=handheld_${size}_${dir}_${model}
  sim "$name" -p handheld -s "$size" -d "$dir" -m "$model"
  row "handheld $size $dir $model (enhanced)" "$work/$name"
  row "handheld $size $dir $model (exact, gyroscope)" "$work/$name" --mode exact \
    --gyro "$work/$name/gyro.csv"
done
sim sideways -s 720x1280 -d right -n 40 --speed-px 28 --speed-variation 0.9 --blur 1 --noise 4 \
  --drift -0.3 --tremor 0.03 --seed 3
row "sideways pan (enhanced)" "$work/sideways" --no-restart
row "sideways pan (exact)" "$work/sideways" --no-restart --mode exact
sim steady_long -p steady -n 100
if [[ ! -d $work/gap ]]; then  # the steady sweep with frames 40 to 59 left out
  mkdir -p "$work/gap"
  python3 - "$work/steady_long" "$work/gap" <<'PY'
import json, shutil, sys
src, dst = sys.argv[1], sys.argv[2]
m = json.load(open(f"{src}/meta.json")); fb = m["frame_bytes"]
with open(f"{src}/frames.nv21", "rb") as f, open(f"{dst}/frames.nv21", "wb") as g:
    for i in range(m["frames"]):
        d = f.read(fb)
        if not 40 <= i < 60: g.write(d)
m["frames"] -= 20; m["options"]["frames"] = m["frames"]
json.dump(m, open(f"{dst}/meta.json", "w"))
rows, k = [], 0  # truth.csv: comments, the header, then one row per frame
for line in open(f"{src}/truth.csv"):
    if line.startswith("#") or line.startswith("frame"):
        rows.append(line)
    else:
        if not 40 <= k < 60: rows.append(line)
        k += 1
open(f"{dst}/truth.csv", "w").writelines(rows)
for name in ("truth.png", "gyro.csv"): shutil.copy(f"{src}/{name}", dst)
PY
fi
row "a fifth missing (exact)" "$work/gap" --no-restart --mode exact
row "a fifth missing (enhanced)" "$work/gap" --no-restart
row "step back, no gyroscope (exact)" "$work/goes-back" --no-restart --mode exact
row "too-fast, gyroscope 50 ms ahead (enhanced)" "$work/too-fast" --no-restart \
  --gyro "$work/too-fast/gyro.csv" --gyro-lag-ms 50
row "too-fast, gyroscope 50 ms ahead (exact)" "$work/too-fast" --no-restart --mode exact \
  --gyro "$work/too-fast/gyro.csv" --gyro-lag-ms 50
if [[ -d $clips ]]; then
  for v in "$clips"/*.mp4; do
    row "$(basename "$v" .mp4) (enhanced)" "$v"
    row "$(basename "$v" .mp4) (exact)" "$v" --mode exact
  done
fi
