# Compiler settings shared by every target of the project, carried by the interface target
# zoltpano_options.
add_library(zoltpano_options INTERFACE)

if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  target_compile_options(zoltpano_options INTERFACE -Wall -Wextra -Wno-unused-parameter)
  if(ZOLTPANO_WERROR)
    target_compile_options(zoltpano_options INTERFACE -Werror)
  endif()
endif()

if(ZOLTPANO_SANITIZE)
  string(REPLACE "," ";" _zp_sanitizers "${ZOLTPANO_SANITIZE}")
  foreach(_s IN LISTS _zp_sanitizers)
    if(NOT _s MATCHES "^(address|undefined|thread|leak)$")
      message(FATAL_ERROR "ZOLTPANO_SANITIZE: unknown sanitizer '${_s}'")
    endif()
  endforeach()
  if("thread" IN_LIST _zp_sanitizers AND "address" IN_LIST _zp_sanitizers)
    message(FATAL_ERROR "ZOLTPANO_SANITIZE: 'thread' cannot be combined with 'address'")
  endif()
  target_compile_options(zoltpano_options INTERFACE
    -fsanitize=${ZOLTPANO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(zoltpano_options INTERFACE -fsanitize=${ZOLTPANO_SANITIZE})
  # Sanitizer builds also keep the engine's own checks of caller promises (platform/check.h).
  target_compile_definitions(zoltpano_options INTERFACE ZOLTPANO_CHECKS)
endif()

# 32-bit ARM: NEON, and (GCC) half floats in IEEE format, which Highway's NEON target needs for
# its float16_t; Clang, the NDK's compiler, always uses the IEEE format and rejects the option.
# On Linux NEON comes from the toolchain file's flags (cmake/toolchain-armhf.cmake:
# -mfpu=neon-vfpv4). GCC's notes that passing 64-bit aggregates changed in GCC 7.1 matter only
# when mixing objects from older compilers. 64-bit ARM ("aarch64", also on Android's arm64-v8a)
# needs neither: NEON is part of the architecture, its half floats are IEEE, and GCC rejects
# -mfp16-format there; Highway adds the SVE targets' flags itself.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(arm|armv7.*|armhf)$" AND NOT ANDROID)
  target_compile_options(zoltpano_options INTERFACE
    $<$<CXX_COMPILER_ID:GNU>:-mfp16-format=ieee> $<$<CXX_COMPILER_ID:GNU>:-Wno-psabi>)
elseif(ANDROID AND ANDROID_ABI STREQUAL "armeabi-v7a")
  target_compile_options(zoltpano_options INTERFACE -mfpu=neon)
endif()

# Shared libraries resolve every symbol when they are linked (--no-undefined), except in Clang's
# sanitizer builds: Clang puts the sanitizer runtime into the executables only, and a sanitized
# shared library leaves the runtime's symbols for the program that loads it.
set(ZOLTPANO_NO_UNDEFINED "LINKER:--no-undefined")
if(ZOLTPANO_SANITIZE AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  set(ZOLTPANO_NO_UNDEFINED "")
endif()
