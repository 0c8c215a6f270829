# The body of the Linux ARM toolchain files (cmake/toolchain-armhf.cmake,
# cmake/toolchain-aarch64.cmake), which set before including it:
#   ZP_CROSS_TRIPLET      GNU triplet: compiler prefix and multiarch library folder
#   ZP_CROSS_ROOTFS_VAR   the cache variable (and environment variable) naming the root
#   ZP_CROSS_ROOTFS_DIR   the root's folder in the repository when neither is set
#   ZP_CROSS_ROOTFS_MAKE  the script that makes the root
#   ZP_CROSS_QEMU         the user-mode emulator; its wrapper in the build tree is ZP_CROSS_WRAPPER
#   ZP_CROSS_QEMU_CPU     the emulated CPU unless QEMU_CPU says otherwise (empty: qemu's default)
#   ZP_CROSS_FLAGS        target flags for C and C++
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_LIBRARY_ARCHITECTURE ${ZP_CROSS_TRIPLET})

set(_zp_root "${${ZP_CROSS_ROOTFS_VAR}}")
if(NOT _zp_root)
  if(DEFINED ENV{${ZP_CROSS_ROOTFS_VAR}} AND NOT "$ENV{${ZP_CROSS_ROOTFS_VAR}}" STREQUAL "")
    set(_zp_root "$ENV{${ZP_CROSS_ROOTFS_VAR}}")
  else()
    get_filename_component(_zp_root "${CMAKE_CURRENT_LIST_DIR}/../${ZP_CROSS_ROOTFS_DIR}"
                           ABSOLUTE)
  endif()
endif()
set(${ZP_CROSS_ROOTFS_VAR} "${_zp_root}" CACHE PATH "${ZP_CROSS_TRIPLET} root file system")
if(NOT EXISTS "${_zp_root}/usr/include/opencv4")
  message(FATAL_ERROR "No ${ZP_CROSS_TRIPLET} root file system at ${_zp_root}; "
                      "make it with ${ZP_CROSS_ROOTFS_MAKE}")
endif()
# try_compile projects read the toolchain file again and need the same root.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ${ZP_CROSS_ROOTFS_VAR})

set(CMAKE_C_COMPILER ${ZP_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ZP_CROSS_TRIPLET}-g++)
set(CMAKE_SYSROOT "${_zp_root}")
set(CMAKE_C_FLAGS_INIT "${ZP_CROSS_FLAGS}")
set(CMAKE_CXX_FLAGS_INIT "${ZP_CROSS_FLAGS}")

# Headers, libraries and CMake packages from the root file system only; programs (pkg-config,
# nm) from the host.
set(CMAKE_FIND_ROOT_PATH "${_zp_root}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${_zp_root}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${_zp_root}/usr/lib/${ZP_CROSS_TRIPLET}/pkgconfig:${_zp_root}/usr/lib/pkgconfig:${_zp_root}/usr/share/pkgconfig")
unset(ENV{PKG_CONFIG_PATH})

# Test programs (and gtest's listing of them at ctest time) run under user-mode qemu with the
# root file system as the loader's prefix; the libraries' run paths name target paths, which
# qemu looks up under that prefix first. The emulator is one wrapper file: CMake 3.25 passes a
# multi-word emulator to gtest's test listing as a single word. Options before the program
# reach qemu (wrapper -cpu cortex-a72 prog: the last -cpu counts), and QEMU_CPU in the
# environment picks the CPU as it does for qemu itself.
find_program(ZOLTPANO_QEMU_${ZP_CROSS_TRIPLET} ${ZP_CROSS_QEMU})
set(_zp_qemu "${ZOLTPANO_QEMU_${ZP_CROSS_TRIPLET}}")
if(_zp_qemu AND CMAKE_BINARY_DIR)
  set(_zp_wrapper "${CMAKE_BINARY_DIR}/${ZP_CROSS_WRAPPER}")
  set(_zp_cpu "")
  if(ZP_CROSS_QEMU_CPU)
    set(_zp_cpu " -cpu \"\${QEMU_CPU:-${ZP_CROSS_QEMU_CPU}}\"")
  endif()
  file(WRITE "${_zp_wrapper}" "#!/bin/sh\nexec '${_zp_qemu}'${_zp_cpu} -L '${_zp_root}' \"$@\"\n")
  file(CHMOD "${_zp_wrapper}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
       GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${_zp_wrapper}")
endif()
