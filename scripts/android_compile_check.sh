#!/usr/bin/env bash
# Compiles the library's sources for Android on 32-bit ARM (armv7a-linux-androideabi, the
# armeabi-v7a ABI) with Debian's clang, without the NDK: compile only, nothing is linked.
#   scripts/android_compile_check.sh [-v]
#     -v   print each compiler command
# The files come from scripts/android_sources.txt. Headers: the platform's own where Debian
# ships them (android/log.h from android-liblog-dev; android/sensor.h and android/looper.h from
# android-platform-frameworks-native-headers), Debian's armhf C and C++ library headers as the C
# library (clang defines __ANDROID__ for the triple), and the small stand-ins in
# cmake/android-stub-include for what only the platform's C library has
# (sys/system_properties.h, the API-level annotations). OpenCV and Highway headers are Debian's.
# ZOLTPANO_ANDROID_API sets the minimum API level (default 24), ZOLTPANO_JOBS the parallelism.
set -euo pipefail
cd "$(dirname "$0")/.."

verbose=0
for a in "$@"; do
  case "$a" in
    -v) verbose=1 ;;
    -h|--help) sed -n '2,13p' "$0"; exit 0 ;;
    *) echo "android_compile_check.sh: unknown option '$a'" >&2; exit 2 ;;
  esac
done

api=${ZOLTPANO_ANDROID_API:-24}
cores=$(nproc 2>/dev/null || echo 2)
jobs=${ZOLTPANO_JOBS:-$((cores < 2 ? cores : 2))}
target="armv7a-linux-androideabi${api}"
cxx=${ZOLTPANO_ANDROID_CXX:-clang++}
armhf=/usr/arm-linux-gnueabihf/include

fail() { echo "android_compile_check.sh: $*" >&2; exit 1; }
command -v "$cxx" >/dev/null || fail "$cxx not found (scripts/setup.sh installs clang)"
[ -f "$armhf/stdio.h" ] || fail "no armhf C library headers in $armhf (libc6-dev-armhf-cross)"
cxxver=$(ls "$armhf/c++" 2>/dev/null | sort -V | tail -n 1)
[ -n "$cxxver" ] || fail "no armhf C++ library headers in $armhf/c++ (libstdc++-dev-armhf-cross)"
[ -f /usr/include/android/android/sensor.h ] ||
  fail "android/sensor.h missing (android-platform-frameworks-native-headers)"
[ -f /usr/include/android/android/log.h ] || fail "android/log.h missing (android-liblog-dev)"

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# Only the OpenCV, Highway and libyuv headers of the host, not the rest of its /usr/include.
mkdir -p "$tmp/include"
ln -s /usr/include/opencv4/opencv2 "$tmp/include/opencv2"
ln -s /usr/include/hwy "$tmp/include/hwy"
ln -s /usr/include/libyuv "$tmp/include/libyuv"

# Search order: the project, the stand-ins (they wrap some C library headers with
# #include_next), the platform's headers, OpenCV and Highway, the compiler's own headers
# (arm_neon.h, stddef.h), then the C++ and C libraries.
flags=(
  --target="$target" -march=armv7-a -mfpu=neon -mfloat-abi=softfp -mthumb
  -std=c++17 -O2 -fPIC -fvisibility=hidden -fvisibility-inlines-hidden
  -Wall -Wextra -Wno-unused-parameter -Wunguarded-availability -Werror
  -DZOLT_PANO_BUILDING
  -nostdinc -nostdinc++
  -I. -Iinclude
  -isystem cmake/android-stub-include
  -isystem /usr/include/android
  -isystem "$tmp/include"
  -isystem "$armhf/c++/$cxxver" -isystem "$armhf/c++/$cxxver/arm-linux-gnueabihf"
  -isystem "$("$cxx" -print-resource-dir)/include"
  -isystem "$armhf"
)

# The list: globs expanded, host stand-ins dropped, each file once.
files=()
while IFS= read -r line; do
  line=${line%%#*}
  line=$(echo "$line" | xargs)
  [ -n "$line" ] || continue
  matched=0
  for f in $line; do
    [ -f "$f" ] || continue
    matched=1
    case "$f" in *_host.cpp) continue ;; esac
    files+=("$f")
  done
  [ "$matched" -eq 1 ] || fail "scripts/android_sources.txt: '$line' matches no file"
done < scripts/android_sources.txt
mapfile -t files < <(printf '%s\n' "${files[@]}" | awk '!seen[$0]++')

compile() {
  local f=$1 obj
  obj="$tmp/obj/$(echo "$f" | tr '/' '_').o"
  [ "$verbose" -eq 0 ] || echo "$cxx ${flags[*]} -c $f -o $obj"
  if ! "$cxx" "${flags[@]}" -c "$f" -o "$obj" 2>"$obj.log"; then
    echo "FAILED: $f"; cat "$obj.log"; return 1
  fi
  [ ! -s "$obj.log" ] || cat "$obj.log"
}
mkdir -p "$tmp/obj"
export -f compile
export cxx verbose tmp
start=$SECONDS
status=0
# One compiler per job; each prints its own errors in one piece. Arrays do not pass through the
# environment: each job gets the flags as a declaration.
printf '%s\n' "${files[@]}" |
  xargs -P "$jobs" -n 1 bash -c "$(declare -p flags); compile \"\$1\"" _ || status=1
n=$(find "$tmp/obj" -name '*.o' | wc -l)
if [ "$status" -ne 0 ]; then
  echo "android compile check: $((${#files[@]} - n)) of ${#files[@]} files failed for $target"
  exit 1
fi
echo "android compile check: ${#files[@]} files compiled for $target in $((SECONDS - start))s:" \
  "$(printf '%s ' "${files[@]}")"
