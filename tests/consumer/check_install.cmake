# Installs the build into a fresh prefix and builds the consumer program against it twice, once
# through the CMake package and once through pkg-config, then runs both. Neither gets
# LD_LIBRARY_PATH: libzoltpano must find liblog through its own run path.
#   cmake -DBUILD_DIR=... -DCONSUMER_DIR=... -DWORK_DIR=... -DC_COMPILER=... -DGENERATOR=...
#         [-DCONFIG=...] -P check_install.cmake
foreach(v BUILD_DIR CONSUMER_DIR WORK_DIR C_COMPILER GENERATOR)
  if(NOT ${v})
    message(FATAL_ERROR "check_install.cmake: ${v} not set")
  endif()
endforeach()

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(run_out "${out}" PARENT_SCOPE)
endfunction()

function(expect_version program)
  run("running ${program}" ${program})
  if(NOT run_out STREQUAL "ZOLT_PANO_v3.7\n")
    message(FATAL_ERROR "${program} printed '${run_out}'")
  endif()
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")

set(config_args "")
if(CONFIG)
  set(config_args --config "${CONFIG}")
endif()
run("cmake --install" ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}" ${config_args})

# What gets installed (a host build): the library, the fusion library, the host sensor service,
# their two headers, the CMake package and the pkg-config file.
file(GLOB_RECURSE installed RELATIVE "${prefix}" "${prefix}/*")
foreach(pattern "/libzoltpano\\.so$" "/libzoltpano_gyro\\.so$" "/libzoltpano_host_sensor\\.so$"
                "^include/zolt_pano\\.h$" "^include/zolt_host_sensor\\.h$"
                "/cmake/ZoltPano/ZoltPanoConfig\\.cmake$" "/pkgconfig/zoltpano\\.pc$")
  set(hit "")
  foreach(f IN LISTS installed)
    if(f MATCHES "${pattern}")
      set(hit "${f}")
    endif()
  endforeach()
  if(NOT hit)
    message(FATAL_ERROR "nothing installed matches ${pattern}; installed:\n${installed}")
  endif()
endforeach()
list(FILTER installed INCLUDE REGEX "^include/")
list(SORT installed)
if(NOT installed STREQUAL "include/zolt_host_sensor.h;include/zolt_pano.h")
  message(FATAL_ERROR "headers installed besides zolt_pano.h and zolt_host_sensor.h: ${installed}")
endif()

# 1. find_package(ZoltPano) -> ZoltPano::zoltpano
run("configuring the consumer" ${CMAKE_COMMAND} -S "${CONSUMER_DIR}" -B "${WORK_DIR}/cmake"
    -G "${GENERATOR}" -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_BUILD_TYPE=Release)
run("building the consumer" ${CMAKE_COMMAND} --build "${WORK_DIR}/cmake")
expect_version("${WORK_DIR}/cmake/zoltpano_consumer")

# 2. pkg-config --cflags --libs zoltpano
find_program(PKG_CONFIG NAMES pkg-config pkgconf REQUIRED)
file(GLOB_RECURSE pc_files "${prefix}/*/zoltpano.pc")
get_filename_component(pc_dir "${pc_files}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
run("pkg-config" ${PKG_CONFIG} --cflags --libs zoltpano)
string(STRIP "${run_out}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run("pkg-config libdir" ${PKG_CONFIG} --variable=libdir zoltpano)
string(STRIP "${run_out}" libdir)
if(NOT EXISTS "${libdir}/libzoltpano.so")
  message(FATAL_ERROR "zoltpano.pc names libdir ${libdir}, which has no libzoltpano.so")
endif()
run("compiling the consumer with pkg-config's flags" ${C_COMPILER} "${CONSUMER_DIR}/main.c"
    -o "${WORK_DIR}/consumer_pc" ${flags} "-Wl,-rpath,${libdir}")
expect_version("${WORK_DIR}/consumer_pc")
message(STATUS "install, CMake package and pkg-config file ok")
