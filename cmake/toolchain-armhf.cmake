# Cross build for 32-bit ARM Linux (Debian armhf: ARMv7-A, NEON, hard-float) against an armhf
# root file system made by scripts/make_armhf_rootfs.sh; programs run under qemu-arm.
#   cmake -S . -B build/armhf -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#         [-DZOLTPANO_ARMHF_ROOTFS=/path/to/rootfs]
# The root file system defaults to $ZOLTPANO_ARMHF_ROOTFS, else <repo>/.armhf-rootfs.
# "arm" as uname reports it; cmake/ZoltPanoCompiler.cmake keys the ARM-only flags on it.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(ZP_CROSS_TRIPLET arm-linux-gnueabihf)
set(ZP_CROSS_ROOTFS_VAR ZOLTPANO_ARMHF_ROOTFS)
set(ZP_CROSS_ROOTFS_DIR .armhf-rootfs)
set(ZP_CROSS_ROOTFS_MAKE scripts/make_armhf_rootfs.sh)
set(ZP_CROSS_QEMU qemu-arm)
set(ZP_CROSS_WRAPPER qemu-armhf)
set(ZP_CROSS_FLAGS "-march=armv7-a -mfpu=neon-vfpv4 -mfloat-abi=hard")
include(${CMAKE_CURRENT_LIST_DIR}/ZoltPanoCrossLinux.cmake)
