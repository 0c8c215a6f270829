#!/usr/bin/env bash
# Builds the Debian 12 armhf root file system that the armhf cross build compiles against and
# that qemu-arm runs the tests in: headers and libraries of every dependency, extracted without
# running any package script (no emulation needed, about a minute and 700 MB).
#   scripts/make_armhf_rootfs.sh [DIR]      DIR defaults to <repo>/.armhf-rootfs
# ZOLTPANO_DEBIAN_MIRROR replaces http://deb.debian.org/debian.
# Skips the work when DIR already holds an extraction of the same package list. The tree is
# built next to DIR and renamed into place at the end, so an interrupted run never leaves a
# DIR that looks complete.
set -euo pipefail

repo="$(cd "$(dirname "$0")/.." && pwd)"
dir="${1:-${ZOLTPANO_ARMHF_ROOTFS:-$repo/.armhf-rootfs}}"
suite=bookworm
mirror=${ZOLTPANO_DEBIAN_MIRROR:-http://deb.debian.org/debian}

pkgs=(
  # C and C++ runtime and headers for the cross compiler's --sysroot
  libc6-dev libstdc++-12-dev libgcc-12-dev
  # the engine, its tests, benchmarks and tools
  libopencv-dev libhwy-dev libgtest-dev libgmock-dev libbenchmark-dev
  android-liblog-dev android-liblog android-platform-frameworks-native-headers
  libcli11-dev nlohmann-json3-dev libyuv-dev
)
include="$(IFS=,; echo "${pkgs[*]}")"

# Extraction runs no maintainer script: the BLAS and LAPACK sonames that OpenCV needs, which
# update-alternatives would provide, are linked here to the reference copies the packages ship.
# Absolute symlinks (libz.so -> /lib/...) are made relative so that they resolve inside the
# tree when the linker and qemu use it as sysroot.
hook='set -e; root="$1"; d="$root/usr/lib/arm-linux-gnueabihf"
for l in blas/libblas lapack/liblapack; do
  if [ -e "$d/$l.so.3" ]; then ln -sf "$l.so.3" "$d/${l#*/}.so.3"; fi
  if [ -e "$d/$l.so" ]; then ln -sf "$l.so" "$d/${l#*/}.so"; fi
done
find "$root" -type l -lname "/*" | while read -r link; do
  target="$(readlink "$link")"
  ln -sfn "$(realpath -s -m --relative-to="$(dirname "$link")" "$root$target")" "$link"
done'

# What the tree was made from; a change of packages or fix-ups makes it again.
stamp_text="$suite $mirror $include $(printf '%s' "$hook" | sha256sum | cut -c1-16)"
stamp="$dir/.zoltpano-rootfs-stamp"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$stamp_text" ]; then
  echo "make_armhf_rootfs.sh: $dir is up to date"
  exit 0
fi

for tool in mmdebstrap; do
  command -v "$tool" >/dev/null 2>&1 || {
    echo "make_armhf_rootfs.sh: $tool missing; run scripts/setup.sh --armhf" >&2; exit 1; }
done
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then SUDO="sudo"; else
    echo "make_armhf_rootfs.sh: run as root or install sudo" >&2; exit 1; fi
fi

tmp="$dir.tmp.$$"
trap '$SUDO rm -rf "$tmp"' EXIT
$SUDO rm -rf "$tmp"

echo "make_armhf_rootfs.sh: extracting $suite armhf into $dir"
# Nothing runs inside the tree, so nothing is mounted into it (CI containers may forbid it).
$SUDO mmdebstrap --arch=armhf --variant=extract --mode=root --quiet \
  --skip=chroot/mount --skip=check/qemu \
  --include="$include" \
  --extract-hook="$hook" \
  "$suite" "$tmp" \
  "deb $mirror $suite main" "deb $mirror $suite-updates main"

echo "$stamp_text" | $SUDO tee "$tmp/.zoltpano-rootfs-stamp" >/dev/null
$SUDO rm -rf "$dir"
$SUDO mv "$tmp" "$dir"
trap - EXIT
echo "make_armhf_rootfs.sh: $dir ready ($(du -sh "$dir" | cut -f1))"
