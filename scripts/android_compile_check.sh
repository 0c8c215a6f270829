#!/usr/bin/env bash
# Compiles the library's sources for Android with Debian's clang, without the NDK: compile only,
# nothing is linked. One ABI a run:
#   scripts/android_compile_check.sh [--abi armeabi-v7a|arm64-v8a] [--api N] [-v]
#     --abi   armeabi-v7a (armv7a-linux-androideabi, the default) or arm64-v8a
#             (aarch64-linux-android)
#     --api   minimum API level (default $ZOLTPANO_ANDROID_API, else 24)
#     -v      print each compiler command
# The files come from scripts/android_sources.txt. Headers: the platform's own where Debian
# ships them (android/log.h from android-liblog-dev; android/sensor.h and android/looper.h from
# android-platform-frameworks-native-headers; jni.h from android-libnativehelper-dev), Debian's C and C++ library headers of the same
# processor as the C library (clang defines __ANDROID__ for the triple), and the small
# stand-ins in cmake/android-stub-include for what only the platform's C library has
# (sys/system_properties.h, the API-level annotations). OpenCV and Highway headers are Debian's.
# arm64-v8a: Highway's clang build compiles only the baseline target (NEON), so the Highway
# sources are compiled twice more with SVE and SVE2 in the baseline, which brings in SVE and
# SVE_256, then SVE2, SVE_256 and SVE2_128: every target a 64-bit ARM build can dispatch to.
# ZOLTPANO_JOBS sets the parallelism.
set -euo pipefail
cd "$(dirname "$0")/.."
me=android_compile_check.sh

abi=armeabi-v7a
api=${ZOLTPANO_ANDROID_API:-24}
verbose=0
while [ $# -gt 0 ]; do
  case "$1" in
    --abi) abi=${2:?}; shift ;;
    --api) api=${2:?}; shift ;;
    -v) verbose=1 ;;
    -h|--help) sed -n '2,19p' "$0"; exit 0 ;;
    *) echo "$me: unknown option '$1'" >&2; exit 2 ;;
  esac
  shift
done

# Per ABI: the triple, Debian's library headers of that processor (and their multiarch folder)
# and the target flags. Android's armeabi-v7a is softfp and Thumb-2 with NEON.
case "$abi" in
  armeabi-v7a)
    target="armv7a-linux-androideabi${api}"; multiarch=arm-linux-gnueabihf; debarch=armhf
    abi_flags=(-march=armv7-a -mfpu=neon -mfloat-abi=softfp -mthumb)
    hwy_passes=() ;;
  arm64-v8a)
    target="aarch64-linux-android${api}"; multiarch=aarch64-linux-gnu; debarch=arm64
    abi_flags=()
    hwy_passes=("-march=armv8-a+sve" "-march=armv8-a+sve2") ;;
  *) echo "$me: unknown ABI '$abi' (armeabi-v7a or arm64-v8a)" >&2; exit 2 ;;
esac
cores=$(nproc 2>/dev/null || echo 2)
jobs=${ZOLTPANO_JOBS:-$((cores < 2 ? cores : 2))}
cxx=${ZOLTPANO_ANDROID_CXX:-clang++}
libc=/usr/$multiarch/include

fail() { echo "$me: $*" >&2; exit 1; }
command -v "$cxx" >/dev/null || fail "$cxx not found (scripts/setup.sh installs clang)"
[ -f "$libc/stdio.h" ] || fail "no $debarch C library headers in $libc (libc6-dev-$debarch-cross)"
cxxver=$(ls "$libc/c++" 2>/dev/null | sort -V | tail -n 1)
[ -n "$cxxver" ] || fail "no $debarch C++ library headers in $libc/c++ (libstdc++-12-dev-$debarch-cross)"
[ -f /usr/include/android/android/sensor.h ] ||
  fail "android/sensor.h missing (android-platform-frameworks-native-headers)"
[ -f /usr/include/android/android/log.h ] || fail "android/log.h missing (android-liblog-dev)"
[ -f /usr/include/android/nativehelper/jni.h ] ||
  fail "Android's jni.h missing (android-libnativehelper-dev)"

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# Only the OpenCV, Highway, libyuv and libexif headers of the host, not the rest of its
# /usr/include.
mkdir -p "$tmp/include"
ln -s /usr/include/opencv4/opencv2 "$tmp/include/opencv2"
ln -s /usr/include/hwy "$tmp/include/hwy"
ln -s /usr/include/libyuv "$tmp/include/libyuv"
ln -s /usr/include/libexif "$tmp/include/libexif"

# Search order: the project, the stand-ins (they wrap some C library headers with
# #include_next), the platform's headers, OpenCV and Highway, the compiler's own headers
# (arm_neon.h, arm_sve.h, stddef.h), then the C++ and C libraries.
flags=(
  --target="$target" "${abi_flags[@]}"
  -std=c++17 -O2 -fPIC -fvisibility=hidden -fvisibility-inlines-hidden
  -Wall -Wextra -Wno-unused-parameter -Wunguarded-availability -Werror
  -DZOLT_PANO_BUILDING
  -nostdinc -nostdinc++
  -I. -Iinclude
  -isystem cmake/android-stub-include
  -isystem /usr/include/android
  -isystem /usr/include/android/nativehelper
  -isystem "$tmp/include"
  -isystem "$libc/c++/$cxxver" -isystem "$libc/c++/$cxxver/$multiarch"
  -isystem "$("$cxx" -print-resource-dir)/include"
  -isystem "$libc"
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
# The sources Highway compiles once per target.
mapfile -t hwy_files < <(grep -l 'hwy/foreach_target.h' "${files[@]}" || true)

# compile PASS FILE: objects of a pass in $tmp/PASS; $pass_flags adds to the flags.
compile() {
  local dir="$tmp/$1" f=$2 obj
  obj="$dir/$(echo "$f" | tr '/' '_').o"
  # shellcheck disable=SC2086
  [ "$verbose" -eq 0 ] || echo "$cxx ${flags[*]} $pass_flags -c $f -o $obj"
  # shellcheck disable=SC2086
  if ! "$cxx" "${flags[@]}" $pass_flags -c "$f" -o "$obj" 2>"$obj.log"; then
    echo "FAILED ($1): $f"; cat "$obj.log"; return 1
  fi
  [ ! -s "$obj.log" ] || cat "$obj.log"
}
export -f compile
export cxx verbose tmp
# One compiler per job; each prints its own errors in one piece. Arrays do not pass through the
# environment: each job gets the flags as a declaration.
run_pass() {
  local name=$1; shift
  mkdir -p "$tmp/$name"
  printf '%s\n' "$@" |
    xargs -P "$jobs" -n 1 bash -c "$(declare -p flags); compile '$name' \"\$1\"" _
}
# The Highway targets in a pass's objects, from the namespaces of their symbols.
targets_of() {
  nm -C "$tmp/$1"/*.o 2>/dev/null | grep -o 'zolt::N_[A-Z0-9_]*' | sed 's/zolt::N_//' |
    sort -u | tr '\n' ' ' | sed 's/ $//'
}

start=$SECONDS
status=0
pass_flags="" run_pass base "${files[@]}" || status=1
n=$(find "$tmp/base" -name '*.o' | wc -l)
if [ "$status" -ne 0 ]; then
  echo "android compile check: $((${#files[@]} - n)) of ${#files[@]} files failed for $target"
  exit 1
fi
report="${#files[@]} files compiled for $target (Highway targets $(targets_of base))"
i=0
for p in "${hwy_passes[@]}"; do
  i=$((i + 1))
  pass_flags="$p" run_pass "hwy$i" "${hwy_files[@]}" || {
    echo "android compile check: Highway sources failed for $target with $p"; exit 1; }
  report+="; ${#hwy_files[@]} Highway files again with $p ($(targets_of "hwy$i"))"
done
echo "compiled: $(printf '%s ' "${files[@]}")"
echo "android compile check: $report in $((SECONDS - start))s"
