#!/usr/bin/env bash
# Turns the phone gyroscope log of ../shared/data/phone_gyro (a phone's gyroscope at about 412 Hz
# and 103 of its camera frames, RE_frame-99.jpg .. RE_frame-201.jpg, with start-of-frame times on
# the gyroscope's clock) into a recording folder as zoltpano gyro-check and stitch read it:
#   frames/frame_NNNN.jpg  the frames in order from 0, scaled up to the smallest even size above
#                          640 on both sides with their aspect (800 x 600 -> 856 x 642)
#   frames.csv             frame,t_ns: 0-based frame index, start-of-frame time in ns on the
#                          gyroscope's clock
#   gyro.csv               t_ns,wx,wy,wz: rad/s in the phone's sensor axes, the events from one
#                          second before the first frame to one second after the last
# The data stays out of the repository; the folder is made under build/ by default.
#   scripts/make_phone_gyro_recording.sh [--data DIR] [--out DIR] [--blank FIRST-LAST]
#     --blank FIRST-LAST  frames FIRST to LAST (0-based, inclusive) become flat grey: the images
#                         say nothing there, only the gyroscope does
set -euo pipefail
cd "$(dirname "$0")/.."

data=../shared/data/phone_gyro
out=build/phone_gyro
blank=""
while [ $# -gt 0 ]; do
  case "$1" in
    --data) data=$2; shift 2 ;;
    --out) out=$2; shift 2 ;;
    --blank) blank=$2; shift 2 ;;
    -h|--help) sed -n '2,15p' "$0"; exit 0 ;;
    *) echo "make_phone_gyro_recording.sh: unknown option '$1'" >&2; exit 2 ;;
  esac
done
for f in framestamp.txt gyro.txt frames/RE_frame-99.jpg; do
  if [ ! -e "$data/$f" ]; then
    echo "make_phone_gyro_recording.sh: '$data/$f' is missing (the phone gyroscope data is not" \
         "on this machine; --data names its folder)" >&2
    exit 1
  fi
done
command -v ffmpeg >/dev/null || { echo "make_phone_gyro_recording.sh: needs ffmpeg (scripts/setup.sh installs it)" >&2; exit 1; }
blank_first=-1 blank_last=-2
if [ -n "$blank" ]; then
  if ! [[ "$blank" =~ ^([0-9]+)-([0-9]+)$ ]] || [ "${BASH_REMATCH[1]}" -gt "${BASH_REMATCH[2]}" ]; then
    echo "make_phone_gyro_recording.sh: --blank takes FIRST-LAST, e.g. 40-55" >&2; exit 2
  fi
  blank_first=${BASH_REMATCH[1]} blank_last=${BASH_REMATCH[2]}
fi

first=99 last=201
count=$((last - first + 1))
rm -rf "$out"
mkdir -p "$out/frames"

# The smallest even size above 640 on both sides with the frames' aspect ratio.
IFS=x read -r w h < <(ffprobe -v error -select_streams v:0 -show_entries stream=width,height \
  -of csv=p=0:s=x "$data/frames/RE_frame-$first.jpg")
read -r sw sh < <(awk -v w="$w" -v h="$h" 'function even(v) { return 2 * int(v / 2 + 0.999999999) }
  BEGIN { s = 642 / (w < h ? w : h); a = even(w * s); b = even(h * s);
          print (a < 642 ? 642 : a), (b < 642 ? 642 : b) }')
ffmpeg -loglevel error -y -start_number "$first" -i "$data/frames/RE_frame-%d.jpg" \
  -frames:v "$count" -vf "scale=$sw:$sh:flags=bicubic" -q:v 2 -start_number 0 \
  "$out/frames/frame_%04d.jpg"
if [ "$blank_first" -ge 0 ]; then
  ffmpeg -loglevel error -y -f lavfi -i "color=c=0x808080:s=${sw}x${sh}" -frames:v 1 -q:v 2 \
    "$out/grey.jpg"
  for ((k = blank_first; k <= blank_last && k < count; ++k)); do
    cp "$out/grey.jpg" "$(printf '%s/frames/frame_%04d.jpg' "$out" "$k")"
  done
  rm "$out/grey.jpg"
fi

# Frame N of the recording is line N (1-based) of framestamp.txt, in seconds.
awk -v first="$first" -v last="$last" 'BEGIN { print "frame,t_ns" }
  NR >= first && NR <= last { printf "%d,%.0f\n", NR - first, $1 * 1e9 }' \
  "$data/framestamp.txt" > "$out/frames.csv"
t0=$(awk -F, 'NR == 2 { print $2 }' "$out/frames.csv")
t1=$(awk -F, 'END { print $2 }' "$out/frames.csv")
# gyro.txt: wx,wy,wz,t (rad/s, seconds).
awk -F, -v t0="$t0" -v t1="$t1" 'BEGIN { print "t_ns,wx,wy,wz" }
  { t = $4 * 1e9; if (t >= t0 - 1e9 && t <= t1 + 1e9) printf "%.0f,%s,%s,%s\n", t, $1, $2, $3 }' \
  "$data/gyro.txt" > "$out/gyro.csv"

echo "make_phone_gyro_recording.sh: $count frames of ${sw}x${sh} (from ${w}x${h})," \
     "$(($(wc -l < "$out/gyro.csv") - 1)) gyroscope events in $out" \
     "${blank:+(frames $blank flat grey)}"
