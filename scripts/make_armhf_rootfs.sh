#!/usr/bin/env bash
# The Debian 12 armhf root file system for the 32-bit ARM cross build (scripts/make_rootfs.sh).
#   scripts/make_armhf_rootfs.sh [DIR]      DIR defaults to <repo>/.armhf-rootfs
exec bash "$(dirname "$0")/make_rootfs.sh" armhf "$@"
