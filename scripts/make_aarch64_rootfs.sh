#!/usr/bin/env bash
# The Debian 12 arm64 root file system for the 64-bit ARM cross build (scripts/make_rootfs.sh).
#   scripts/make_aarch64_rootfs.sh [DIR]    DIR defaults to <repo>/.aarch64-rootfs
exec bash "$(dirname "$0")/make_rootfs.sh" arm64 "$@"
