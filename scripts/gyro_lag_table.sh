#!/usr/bin/env bash
# The gyroscope ahead of the frames, as on a phone: simulated sweeps (1280x720, rotate model,
# with the gyroscope) stitched by `zoltpano evaluate --mode exact --no-restart` with the events
# fed up to each frame's time plus a lag, without and with the frames' times handed to the
# engine (--frame-times). Prints one markdown table: key-frame error median and max (px), PSNR
# against the truth (dB), length ratio, and whether ERR_TRACE_TOO_QUICK was raised.
#   scripts/gyro_lag_table.sh [--out DIR] [--lags "0 33 66 100"]
# Sweeps: the too-fast and handheld presets, and a burst sweep (steady, one frame at half the
# frame's width at 40 % of the sweep). Needs a build (build/host/tools/zoltpano).
set -euo pipefail
cd "$(dirname "$0")/.."

out=build/gyro_lag lags="0 33 66 100"
while [ $# -gt 0 ]; do
  case "$1" in
    --out) out=$2; shift 2 ;;
    --lags) lags=$2; shift 2 ;;
    -h|--help) sed -n '2,9p' "$0"; exit 0 ;;
    *) echo "gyro_lag_table.sh: unknown option '$1'" >&2; exit 2 ;;
  esac
done
zp=build/host/tools/zoltpano
[ -x "$zp" ] || { echo "gyro_lag_table.sh: build first ($zp is missing)" >&2; exit 1; }
mkdir -p "$out"

declare -A sweep_args=(
  [too-fast]="--preset too-fast"
  [handheld]="--preset handheld"
  [burst]="--preset steady --burst-speed 0.5 --burst-at 0.4"
)
# One value of an evaluation.json (nlohmann's dump: one key a line); the first match.
field() { awk -F': ' -v k="\"$2\"" '$1 ~ k { gsub(/[,"]/, "", $2); print $2; exit }' "$1"; }

echo "| sweep | lag ms | frame times | key-frame error median / max px | PSNR dB | length ratio | too-quick |"
echo "|---|---|---|---|---|---|---|"
for name in too-fast handheld burst; do
  dir=$out/$name
  # shellcheck disable=SC2086  # the arguments are words
  "$zp" simulate -q -f --out "$dir" --size 1280x720 -m rotate ${sweep_args[$name]}
  for lag in $lags; do
    for times in no yes; do
      json=$out/${name}_${lag}_${times}.json
      extra=()
      [ "$times" = yes ] && extra=(--frame-times)
      "$zp" evaluate "$dir" --gyro --mode exact --no-restart --gyro-lag-ms "$lag" "${extra[@]}" \
        -o "$out/${name}_${lag}_${times}" --json "$json" >/dev/null 2>&1 || true
      quick=no
      grep -q '"0x7004"' "$json" && quick=raised
      printf '| %s | %s | %s | %.2f / %.1f | %.2f | %.4f | %s |\n' "$name" "$lag" "$times" \
        "$(field "$json" median)" "$(field "$json" max)" "$(field "$json" psnr_db)" \
        "$(field "$json" length_ratio)" "$quick"
    done
  done
done
