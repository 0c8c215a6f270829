# Cross build for 64-bit ARM Linux (Debian arm64: ARMv8-A, NEON always; SVE and SVE2 chosen at
# run time by Highway) against an arm64 root file system made by
# scripts/make_aarch64_rootfs.sh; programs run under qemu-aarch64.
#   cmake -S . -B build/aarch64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake \
#         [-DZOLTPANO_AARCH64_ROOTFS=/path/to/rootfs]
# The root file system defaults to $ZOLTPANO_AARCH64_ROOTFS, else <repo>/.aarch64-rootfs.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(ZP_CROSS_TRIPLET aarch64-linux-gnu)
set(ZP_CROSS_ROOTFS_VAR ZOLTPANO_AARCH64_ROOTFS)
set(ZP_CROSS_ROOTFS_DIR .aarch64-rootfs)
set(ZP_CROSS_ROOTFS_MAKE scripts/make_aarch64_rootfs.sh)
set(ZP_CROSS_QEMU qemu-aarch64)
set(ZP_CROSS_WRAPPER qemu-aarch64)
# qemu's "max" (its default too, named so that it stays the same): SVE and SVE2 at 512 bits.
set(ZP_CROSS_QEMU_CPU max)
set(ZP_CROSS_FLAGS "")
include(${CMAKE_CURRENT_LIST_DIR}/ZoltPanoCrossLinux.cmake)
