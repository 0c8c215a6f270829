#!/usr/bin/env bash
# The closest test of a real gyroscope carrying the track that this machine allows: the phone
# gyroscope recording (scripts/make_phone_gyro_recording.sh) stitched frame by frame with its
# real gyroscope, once as recorded and once with a stretch of frames blanked to flat grey, where
# the images say nothing and only the gyroscope can carry the tracker. The offsets SelectFrames
# reports over the stretch and the frames after it are compared with those of the run on the
# intact frames (what vision measured), for the gyroscope aligned by zoltpano gyro-check, the
# gyroscope with the engine's fixed camera and the clocks as given (each also with the frames'
# times handed to the engine, --frame-times), and no gyroscope.
#   scripts/phone_gyro_blank_check.sh [--blank FIRST-LAST] [--after N] [--data DIR]
#     --blank FIRST-LAST  the frames blanked (default 30-39, a third of a second)
#     --after N           how many frames after the stretch are compared too (default 10)
# Needs a build (build/host/tools/zoltpano) and ../shared/data/phone_gyro (or --data).
set -euo pipefail
cd "$(dirname "$0")/.."

blank=30-39 after=10 data=../shared/data/phone_gyro
while [ $# -gt 0 ]; do
  case "$1" in
    --blank) blank=$2; shift 2 ;;
    --after) after=$2; shift 2 ;;
    --data) data=$2; shift 2 ;;
    -h|--help) sed -n '2,13p' "$0"; exit 0 ;;
    *) echo "phone_gyro_blank_check.sh: unknown option '$1'" >&2; exit 2 ;;
  esac
done
[[ "$blank" =~ ^([0-9]+)-([0-9]+)$ ]] || { echo "phone_gyro_blank_check.sh: --blank takes FIRST-LAST" >&2; exit 2; }
first=${BASH_REMATCH[1]} last=${BASH_REMATCH[2]}
zp=build/host/tools/zoltpano
[ -x "$zp" ] || { echo "phone_gyro_blank_check.sh: build first ($zp is missing)" >&2; exit 1; }

rec=build/phone_gyro blanked=build/phone_gyro_blank out=build/phone_gyro_check
bash scripts/make_phone_gyro_recording.sh --data "$data" --out "$rec" >/dev/null
bash scripts/make_phone_gyro_recording.sh --data "$data" --out "$blanked" --blank "$blank" >/dev/null
mkdir -p "$out"

"$zp" gyro-check "$rec" --json "$out/gyro_check.json" --plot "$out/gyro_check.png"
field() { awk -F': ' -v k="\"$1\"" '$1 ~ k { gsub(/,/, "", $2); print $2 }' "$out/gyro_check.json"; }
offset=$(printf '%.1f' "$(field time_offset_ms)") hfov=$(printf '%.2f' "$(field hfov_deg)")

# One capture, the engine with no option but the lens: the tracker's own offsets.
stitch() { "$zp" stitch "$1" --no-restart --mode exact -q -o "$out/$2" "${@:3}" || true; }
gyro=(--gyro "$rec/gyro.csv")
stitch "$rec" vision "${gyro[@]}" --gyro-offset-ms "$offset" --hfov "$hfov"
stitch "$blanked" aligned "${gyro[@]}" --gyro-offset-ms "$offset" --hfov "$hfov"
stitch "$blanked" timed "${gyro[@]}" --gyro-offset-ms "$offset" --hfov "$hfov" --frame-times
stitch "$blanked" fixed "${gyro[@]}"
stitch "$blanked" fixed_timed "${gyro[@]}" --frame-times
stitch "$blanked" none

# Offsets (full-resolution pixels) against the intact run's, frame by frame.
compare() {
  awk -F, -v a="$first" -v b="$last" -v n="$after" -v name="$2" '
    NR == FNR { if (FNR > 1) { vx[$1] = $2; vy[$1] = $3 } next }
    FNR > 1 && $1 >= a && $1 <= b + n {
      e = sqrt(($2 - vx[$1]) ^ 2 + ($3 - vy[$1]) ^ 2)
      if ($1 <= b) { if (e > inMax) inMax = e; inSum += e; inN++ }
      else { if (e > outMax) outMax = e; outSum += e; outN++; if ($1 == b + 1) first = e }
    }
    END { printf "%-42s %10.1f %10.1f %12.1f %10.1f %10.1f\n", name, inSum / inN, inMax, first,
          outSum / outN, outMax }' "$out/vision.csv" "$out/$1.csv"
}
echo
echo "frames $blank blanked (flat grey); gyroscope clock $offset ms, lens $hfov degrees (gyro-check)"
echo "offset error against the intact frames' run, full-resolution px:"
printf "%-42s %10s %10s %12s %10s %10s\n" "" "stretch" "stretch" "first after" "next $after" "next $after"
printf "%-42s %10s %10s %12s %10s %10s\n" "run on the blanked frames" "mean" "max" "" "mean" "max"
compare aligned "gyroscope, aligned (--gyro-offset-ms --hfov)"
compare timed "  the same with frame times (--frame-times)"
compare fixed "gyroscope, fixed camera, clocks as given"
compare fixed_timed "  the same with frame times"
compare none "no gyroscope"
echo "CSVs and panoramas in $out"
