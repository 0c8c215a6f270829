#!/usr/bin/env bash
# Builds the Debian 12 root file system of a 32- or 64-bit ARM architecture that its cross
# build compiles against and that user-mode qemu runs the tests in: headers and libraries of
# every dependency, extracted without running any package script (no emulation needed, about a
# minute and 700 MB).
#   scripts/make_rootfs.sh ARCH [DIR]
#     ARCH  armhf (32-bit ARM, arm-linux-gnueabihf) or arm64 (aarch64-linux-gnu)
#     DIR   defaults to $ZOLTPANO_ARMHF_ROOTFS or <repo>/.armhf-rootfs (armhf),
#           $ZOLTPANO_AARCH64_ROOTFS or <repo>/.aarch64-rootfs (arm64)
# scripts/make_armhf_rootfs.sh and scripts/make_aarch64_rootfs.sh call this with their ARCH.
# ZOLTPANO_DEBIAN_MIRROR replaces http://deb.debian.org/debian.
# Skips the work when DIR already holds an extraction of the same package list. The tree is
# built next to DIR and renamed into place at the end, so an interrupted run never leaves a
# DIR that looks complete.
set -euo pipefail

repo="$(cd "$(dirname "$0")/.." && pwd)"
me="make_rootfs.sh"
case "${1:-}" in
  armhf) triplet=arm-linux-gnueabihf; dir="${2:-${ZOLTPANO_ARMHF_ROOTFS:-$repo/.armhf-rootfs}}" ;;
  arm64) triplet=aarch64-linux-gnu; dir="${2:-${ZOLTPANO_AARCH64_ROOTFS:-$repo/.aarch64-rootfs}}" ;;
  *) echo "$me: usage: $me armhf|arm64 [DIR]" >&2; exit 2 ;;
esac
arch=$1
suite=bookworm
mirror=${ZOLTPANO_DEBIAN_MIRROR:-http://deb.debian.org/debian}

pkgs=(
  # C and C++ runtime and headers for the cross compiler's --sysroot
  libc6-dev libstdc++-12-dev libgcc-12-dev
  # the engine, its tests, benchmarks and tools
  libopencv-dev libhwy-dev libgtest-dev libgmock-dev libbenchmark-dev
  android-liblog-dev android-liblog android-platform-frameworks-native-headers
  libcli11-dev nlohmann-json3-dev libyuv-dev libexif-dev
)
include="$(IFS=,; echo "${pkgs[*]}")"

# Extraction runs no maintainer script: the BLAS and LAPACK sonames that OpenCV needs, which
# update-alternatives would provide, are linked here to the reference copies the packages ship.
# Absolute symlinks (libz.so -> /lib/...) are made relative so that they resolve inside the
# tree when the linker and qemu use it as sysroot.
hook='set -e; root="$1"; d="$root/usr/lib/'"$triplet"'"
for l in blas/libblas lapack/liblapack; do
  if [ -e "$d/$l.so.3" ]; then ln -sf "$l.so.3" "$d/${l#*/}.so.3"; fi
  if [ -e "$d/$l.so" ]; then ln -sf "$l.so" "$d/${l#*/}.so"; fi
done
find "$root" -type l -lname "/*" | while read -r link; do
  target="$(readlink "$link")"
  ln -sfn "$(realpath -s -m --relative-to="$(dirname "$link")" "$root$target")" "$link"
done'

# What the tree was made from; a change of packages or fix-ups makes it again. (The armhf
# stamp carries no architecture: trees made before arm64 was added stay valid.)
stamp_text="$suite $mirror $include $(printf '%s' "$hook" | sha256sum | cut -c1-16)"
[ "$arch" = armhf ] || stamp_text="$arch $stamp_text"
stamp="$dir/.zoltpano-rootfs-stamp"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$stamp_text" ]; then
  echo "$me: $arch $dir is up to date"
  exit 0
fi

for tool in mmdebstrap; do
  command -v "$tool" >/dev/null 2>&1 || {
    echo "$me: $tool missing; run scripts/setup.sh --arm" >&2; exit 1; }
done
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then SUDO="sudo"; else
    echo "$me: run as root or install sudo" >&2; exit 1; fi
fi

tmp="$dir.tmp.$$"
trap '$SUDO rm -rf "$tmp"' EXIT
$SUDO rm -rf "$tmp"

echo "$me: extracting $suite $arch into $dir"
# Nothing runs inside the tree, so nothing is mounted into it (CI containers may forbid it).
$SUDO mmdebstrap --arch="$arch" --variant=extract --mode=root --quiet \
  --skip=chroot/mount --skip=check/qemu \
  --include="$include" \
  --extract-hook="$hook" \
  "$suite" "$tmp" \
  "deb $mirror $suite main" "deb $mirror $suite-updates main"

echo "$stamp_text" | $SUDO tee "$tmp/.zoltpano-rootfs-stamp" >/dev/null
$SUDO rm -rf "$dir"
$SUDO mv "$tmp" "$dir"
trap - EXIT
echo "$me: $arch $dir ready ($(du -sh "$dir" | cut -f1))"
