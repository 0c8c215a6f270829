# Cross build for 32-bit ARM Linux (Debian armhf: ARMv7-A, NEON, hard-float) against an armhf
# root file system made by scripts/make_armhf_rootfs.sh; programs run under qemu-arm.
#   cmake -S . -B build/armhf -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#         [-DZOLTPANO_ARMHF_ROOTFS=/path/to/rootfs]
# The root file system defaults to $ZOLTPANO_ARMHF_ROOTFS, else <repo>/.armhf-rootfs.
set(CMAKE_SYSTEM_NAME Linux)
# "arm" as uname reports it; cmake/ZoltPanoCompiler.cmake keys the ARM-only flags on it.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT ZOLTPANO_ARMHF_ROOTFS)
  if(DEFINED ENV{ZOLTPANO_ARMHF_ROOTFS} AND NOT "$ENV{ZOLTPANO_ARMHF_ROOTFS}" STREQUAL "")
    set(ZOLTPANO_ARMHF_ROOTFS "$ENV{ZOLTPANO_ARMHF_ROOTFS}")
  else()
    get_filename_component(ZOLTPANO_ARMHF_ROOTFS "${CMAKE_CURRENT_LIST_DIR}/../.armhf-rootfs"
                           ABSOLUTE)
  endif()
endif()
set(ZOLTPANO_ARMHF_ROOTFS "${ZOLTPANO_ARMHF_ROOTFS}" CACHE PATH "armhf root file system")
if(NOT EXISTS "${ZOLTPANO_ARMHF_ROOTFS}/usr/include/opencv4")
  message(FATAL_ERROR "No armhf root file system at ${ZOLTPANO_ARMHF_ROOTFS}; "
                      "make it with scripts/make_armhf_rootfs.sh")
endif()
# try_compile projects read this file again and need the same root.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZOLTPANO_ARMHF_ROOTFS)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_SYSROOT "${ZOLTPANO_ARMHF_ROOTFS}")
set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=neon-vfpv4 -mfloat-abi=hard")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=neon-vfpv4 -mfloat-abi=hard")

# Headers, libraries and CMake packages from the root file system only; programs (pkg-config,
# nm) from the host.
set(CMAKE_FIND_ROOT_PATH "${ZOLTPANO_ARMHF_ROOTFS}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ZOLTPANO_ARMHF_ROOTFS}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${ZOLTPANO_ARMHF_ROOTFS}/usr/lib/arm-linux-gnueabihf/pkgconfig:${ZOLTPANO_ARMHF_ROOTFS}/usr/lib/pkgconfig:${ZOLTPANO_ARMHF_ROOTFS}/usr/share/pkgconfig")
unset(ENV{PKG_CONFIG_PATH})

# Test programs (and gtest's listing of them at ctest time) run under user-mode qemu with the
# root file system as the loader's prefix; the libraries' run paths name target paths, which
# qemu looks up under that prefix first. The emulator is one wrapper file: CMake 3.25 passes a
# multi-word emulator to gtest's test listing as a single word.
find_program(ZOLTPANO_QEMU_ARM qemu-arm)
if(ZOLTPANO_QEMU_ARM AND CMAKE_BINARY_DIR)
  set(_zp_wrapper "${CMAKE_BINARY_DIR}/qemu-armhf")
  file(WRITE "${_zp_wrapper}"
       "#!/bin/sh\nexec '${ZOLTPANO_QEMU_ARM}' -L '${ZOLTPANO_ARMHF_ROOTFS}' \"$@\"\n")
  file(CHMOD "${_zp_wrapper}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
       GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${_zp_wrapper}")
endif()
