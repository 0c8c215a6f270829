#!/usr/bin/env bash
# Opens a panorama JPEG in a real panorama viewer (Photo Sphere Viewer, which places the picture
# on the sphere by the file's GPano XMP) in headless Chromium, prints what the viewer read as one
# JSON line (panoData: fullWidth, fullHeight, croppedWidth, croppedHeight, croppedX, croppedY;
# the texture's size; the screenshot's luma spread), and checks the expectations given.
#   scripts/viewer_check.sh JPEG [--expect-full-width N] [--expect-full-height N]
#       [--expect-cropped-width N] [--expect-cropped-height N] [--expect-cropped-x N]
#       [--expect-cropped-y N] [--screenshot OUT.png]
# Installs what is missing: Chromium, Node.js, npm and exiftool with apt-get (scripts/setup.sh
# --viewer), the pinned npm packages of tests/viewer/package-lock.json into .viewer/node_modules.
# Exit status 0: the viewer showed the panorama as expected; 1: it did not; 2: bad command line.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() { sed -n '2,11p' "$0" >&2; exit 2; }
[ $# -ge 1 ] || usage
jpeg=$1
shift
[ -f "$jpeg" ] || { echo "viewer_check.sh: no file '$jpeg'" >&2; exit 2; }
check_args=(--pano "$jpeg")
while [ $# -gt 0 ]; do
  [ $# -ge 2 ] || usage
  case "$1" in
    --expect-full-width) check_args+=(--expect "fullWidth=$2") ;;
    --expect-full-height) check_args+=(--expect "fullHeight=$2") ;;
    --expect-cropped-width) check_args+=(--expect "croppedWidth=$2") ;;
    --expect-cropped-height) check_args+=(--expect "croppedHeight=$2") ;;
    --expect-cropped-x) check_args+=(--expect "croppedX=$2") ;;
    --expect-cropped-y) check_args+=(--expect "croppedY=$2") ;;
    --screenshot) check_args+=(--screenshot "$2") ;;
    *) echo "viewer_check.sh: unknown option '$1'" >&2; usage ;;
  esac
  shift 2
done

bash scripts/setup.sh --viewer >/dev/null

# The npm packages as locked, installed again only when the lock changes. No install scripts
# run (puppeteer-core downloads nothing; the browser is Debian's).
dir=.viewer
if ! cmp -s tests/viewer/package-lock.json "$dir/package-lock.json" || [ ! -d "$dir/node_modules" ]; then
  mkdir -p "$dir"
  cp tests/viewer/package.json tests/viewer/package-lock.json "$dir/"
  (cd "$dir" && npm ci --no-audit --no-fund --ignore-scripts --loglevel=error >/dev/null)
fi

timeout 300 node tests/viewer/check.mjs --modules "$dir/node_modules" --chromium /usr/bin/chromium \
  "${check_args[@]}"
