#!/usr/bin/env bash
# Installs what is missing, builds and runs every test: host, host under AddressSanitizer and
# UndefinedBehaviorSanitizer, and the armhf build under qemu-arm.
#   scripts/test.sh [--host-only]
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

host_only=0
[ "${1:-}" = "--host-only" ] && host_only=1

bash scripts/setup.sh

echo "== host build and tests"
cmake -S . -B build/host -G Ninja -DCMAKE_BUILD_TYPE=Release -DZOLTPANO_WERROR=ON
cmake --build build/host -j "$jobs"
ctest --test-dir build/host --output-on-failure -j "$jobs"

[ "$host_only" -eq 1 ] && exit 0

echo "== host tests under AddressSanitizer and UndefinedBehaviorSanitizer"
cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZOLTPANO_SANITIZE=address,undefined -DZOLTPANO_BENCHMARKS=OFF -DZOLTPANO_WERROR=ON
cmake --build build/asan -j "$jobs"
ctest --test-dir build/asan --output-on-failure -j "$jobs"
