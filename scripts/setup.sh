#!/usr/bin/env bash
# Installs everything zoltpano needs on Debian 12 (bookworm) with apt-get.
# Idempotent: packages already present are left alone. Run as root, or as a user with sudo.
#   scripts/setup.sh             host build, tests, benchmarks, tools, photos, the Java binding
#                                (a JDK, JUnit 5, Kotlin) and the Android compile check (clang
#                                with Debian's armhf and arm64 C/C++ library headers, Android's
#                                jni.h)
#   scripts/setup.sh --armhf     also the 32-bit ARM cross compiler, qemu-user and mmdebstrap
#   scripts/setup.sh --aarch64   also the 64-bit ARM cross compiler, qemu-user and mmdebstrap
#   scripts/setup.sh --arm       both
#   scripts/setup.sh --viewer    also Chromium, Node.js with npm and exiftool (the viewer check)
set -euo pipefail

want_armhf=0
want_aarch64=0
want_viewer=0
for a in "$@"; do
  case "$a" in
    --armhf) want_armhf=1 ;;
    --aarch64) want_aarch64=1 ;;
    --arm) want_armhf=1; want_aarch64=1 ;;
    --viewer) want_viewer=1 ;;
    -h|--help) sed -n '2,10p' "$0"; exit 0 ;;
    *) echo "setup.sh: unknown option '$a'" >&2; exit 2 ;;
  esac
done

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then SUDO="sudo"; else
    echo "setup.sh: run as root or install sudo" >&2; exit 1; fi
fi

pkgs=(
  build-essential cmake ninja-build pkg-config git
  libopencv-dev libhwy-dev libgtest-dev libgmock-dev libbenchmark-dev
  android-liblog-dev android-platform-frameworks-native-headers
  libcli11-dev nlohmann-json3-dev libyuv-dev libexif-dev libimage-exiftool-perl
  clang libclang-rt-14-dev libc6-dev-armhf-cross libstdc++-12-dev-armhf-cross
  libc6-dev-arm64-cross libstdc++-12-dev-arm64-cross
  lomiri-wallpapers-16.04 lomiri-wallpapers-20.04
  ffmpeg
  default-jdk-headless junit5 kotlin android-libnativehelper-dev
)
if [ "$want_armhf" -eq 1 ]; then
  pkgs+=(g++-arm-linux-gnueabihf)
fi
if [ "$want_aarch64" -eq 1 ]; then
  pkgs+=(g++-aarch64-linux-gnu)
fi
if [ "$want_viewer" -eq 1 ]; then
  pkgs+=(chromium nodejs libimage-exiftool-perl)
  # Debian's npm, unless a Node.js that brings its own (NodeSource's) is installed already.
  command -v npm >/dev/null 2>&1 || pkgs+=(npm)
fi
if [ "$want_armhf" -eq 1 ] || [ "$want_aarch64" -eq 1 ]; then
  pkgs+=(qemu-user mmdebstrap)
fi

missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  echo "setup.sh: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
echo "setup.sh: host packages ready"
