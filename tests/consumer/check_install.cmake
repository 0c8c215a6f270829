# Installs the build into a fresh prefix, moves the prefix elsewhere, and uses it from there as
# an application would, without LD_LIBRARY_PATH (libzoltpano finds its own libraries and liblog
# through its run path; the programs get the moved libdir as theirs):
#   - through pkg-config only (zoltpano, zoltpano-host-sensor): the consumer program and the C
#     example, C99 with -Wall -Wextra -pedantic -Werror; and the consumer again with
#     `pkg-config --static`'s flags, whose Libs.private must name every library that the
#     installed libzoltpano.so needs;
#   - through find_package(ZoltPano): the consumer program and both examples.
# The consumer prints the version and the refusals it provokes; the C example stitches a small
# sweep made by the simulator, silently, into a JPEG; the C++ example finds the JPEG it encodes
# in memory equal to the file the engine writes.
#   cmake -DBUILD_DIR=... -DCONSUMER_DIR=... -DEXAMPLES_DIR=... -DWORK_DIR=... -DC_COMPILER=...
#         -DCXX_COMPILER=... -DGENERATOR=... [-DCLI=<zoltpano tool>] [-DCONFIG=...]
#         -P check_install.cmake
# Without CLI (a build without the tool) the examples are built but not run.
foreach(v BUILD_DIR CONSUMER_DIR EXAMPLES_DIR WORK_DIR C_COMPILER CXX_COMPILER GENERATOR)
  if(NOT ${v})
    message(FATAL_ERROR "check_install.cmake: ${v} not set")
  endif()
endforeach()

# Runs a command; stops with its output unless it exits with 0. run_out / run_err: its output.
function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err
                  WORKING_DIRECTORY "${WORK_DIR}")
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(run_out "${out}" PARENT_SCOPE)
  set(run_err "${err}" PARENT_SCOPE)
endfunction()

function(expect_quiet what)
  if(NOT run_err STREQUAL "")
    message(FATAL_ERROR "${what} wrote on stderr (the log is silent):\n${run_err}")
  endif()
endfunction()

# The consumer: the version, then one line per provoked refusal, "CODE_NAME: message", the
# message starting with the refused call's name.
function(expect_consumer program)
  run("running ${program}" "${program}")
  expect_quiet("${program}")
  set(expected
    "ZOLT_PANO_v3\\.7"
    "ERR_INVALID_DIMENSIONS: ZOLT_PANO_Initial[^\n]*"
    "ERR_BAD_OPTION: ZOLT_PANO_SetOption[^\n]*"
    "ERR_NOTHING_TO_SAVE: ZOLT_PANO_SaveJpeg[^\n]*"
    "ERR_BAD_ARGUMENT: ZOLT_PANO_EncodeJpeg[^\n]*"
    "ERR_FRAME_SIZE: ZOLT_PANO_SelectFrames[^\n]*"
    "ERR_NOT_ENGINE: ZOLT_PANO_SelectFrames[^\n]*"
    "ERR_BAD_ARGUMENT: ZOLT_PANO_CanvasSize[^\n]*"
    "ERR_NULL_ARGUMENT: ZOLT_PANO_PackNV21[^\n]*")
  list(JOIN expected "\n" pattern)
  if(NOT run_out MATCHES "^${pattern}\n$")
    message(FATAL_ERROR "${program} printed:\n${run_out}\nexpected lines matching:\n${pattern}")
  endif()
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")
set(installed "${WORK_DIR}/installed")
set(prefix "${WORK_DIR}/moved")

set(config_args "")
if(CONFIG)
  set(config_args --config "${CONFIG}")
endif()
run("cmake --install" ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${installed}" ${config_args})

# What gets installed (a host build): the library, the fusion library, the host sensor service,
# the three headers, the CMake package and the two pkg-config files; with a JDK (JAVA and JAVAC
# given) also the jar and the JNI library.
file(GLOB_RECURSE files RELATIVE "${installed}" "${installed}/*")
set(patterns "/libzoltpano\\.so$" "/libzoltpano_gyro\\.so$" "/libzoltpano_host_sensor\\.so$"
             "/cmake/ZoltPano/ZoltPanoConfig\\.cmake$" "/pkgconfig/zoltpano\\.pc$"
             "/pkgconfig/zoltpano-host-sensor\\.pc$")
if(JAVA)
  list(APPEND patterns "^share/java/zoltpano\\.jar$" "/libzoltpano_jni\\.so$")
endif()
foreach(pattern IN LISTS patterns)
  set(hit "")
  foreach(f IN LISTS files)
    if(f MATCHES "${pattern}")
      set(hit "${f}")
    endif()
  endforeach()
  if(NOT hit)
    message(FATAL_ERROR "nothing installed matches ${pattern}; installed:\n${files}")
  endif()
endforeach()
set(headers "${files}")
list(FILTER headers INCLUDE REGEX "^include/")
list(SORT headers)
if(NOT headers STREQUAL "include/zolt_host_sensor.h;include/zolt_pano.h;include/zolt_pano_ext.h")
  message(FATAL_ERROR "installed headers: ${headers}; expected zolt_host_sensor.h, zolt_pano.h, "
                      "zolt_pano_ext.h")
endif()

# From here on only the moved tree exists.
file(RENAME "${installed}" "${prefix}")

# 1. pkg-config only.
find_program(PKG_CONFIG NAMES pkg-config pkgconf REQUIRED)
file(GLOB_RECURSE pc_files "${prefix}/*/zoltpano.pc")
get_filename_component(pc_dir "${pc_files}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
run("pkg-config" ${PKG_CONFIG} --cflags --libs zoltpano zoltpano-host-sensor)
string(STRIP "${run_out}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
foreach(kind libdir includedir)
  run("pkg-config ${kind}" ${PKG_CONFIG} --variable=${kind} zoltpano)
  string(STRIP "${run_out}" dir)
  get_filename_component(dir "${dir}" ABSOLUTE)
  string(FIND "${dir}/" "${prefix}/" at)
  if(NOT at EQUAL 0)
    message(FATAL_ERROR "zoltpano.pc's ${kind} ${dir} is not in the moved prefix ${prefix}")
  endif()
  set(${kind} "${dir}")
endforeach()
if(NOT EXISTS "${libdir}/libzoltpano.so" OR NOT EXISTS "${includedir}/zolt_pano_ext.h")
  message(FATAL_ERROR "zoltpano.pc names ${libdir} and ${includedir}, without the library or header")
endif()
set(strict -std=c99 -Wall -Wextra -pedantic -Werror)
run("compiling the consumer with pkg-config's flags" ${C_COMPILER} ${strict}
    -DZOLT_CONSUMER_HOST_SENSOR "${CONSUMER_DIR}/main.c" -o "${WORK_DIR}/consumer_pc" ${flags}
    "-Wl,-rpath,${libdir}")
run("compiling stitch_sweep.c with pkg-config's flags" ${C_COMPILER} ${strict}
    "${EXAMPLES_DIR}/stitch_sweep.c" -o "${WORK_DIR}/stitch_sweep_pc" ${flags}
    "-Wl,-rpath,${libdir}")
# pkg-config --static: Libs.private names every library the installed engine needs (its NEEDED
# entries; the C library and the compiler's runtime come with any link), and the linker finds
# each one it names.
run("pkg-config --static" ${PKG_CONFIG} --static --cflags --libs zoltpano)
string(STRIP "${run_out}" static_flags)
separate_arguments(static_flags UNIX_COMMAND "${static_flags}")
find_program(READELF NAMES readelf REQUIRED)
run("readelf on the installed library" ${READELF} -d "${libdir}/libzoltpano.so")
string(REPLACE "\n" ";" dynamic "${run_out}")
set(needed "")
set(unlisted "")
foreach(line IN LISTS dynamic)
  if(line MATCHES "\\(NEEDED\\).*\\[lib([A-Za-z0-9_+-]+)\\.so[.0-9]*\\]")
    set(lib "${CMAKE_MATCH_1}")
    list(APPEND needed "${lib}")
    list(FIND static_flags "-l${lib}" at)
    if(at EQUAL -1 AND NOT lib MATCHES "^(c|gcc_s)$")
      list(APPEND unlisted "${lib}")
    endif()
  endif()
endforeach()
list(FIND needed zoltpano_gyro at)
if(at EQUAL -1)
  message(FATAL_ERROR "no NEEDED libzoltpano_gyro read from libzoltpano.so:\n${run_out}")
endif()
if(unlisted)
  list(JOIN static_flags " " shown)
  message(FATAL_ERROR "libzoltpano.so needs ${unlisted}, which pkg-config --static --cflags "
                      "--libs zoltpano does not name: ${shown}")
endif()
run("linking the consumer with pkg-config --static's flags" ${C_COMPILER} ${strict}
    "${CONSUMER_DIR}/main.c" -o "${WORK_DIR}/consumer_pc_static" ${static_flags}
    "-Wl,-rpath,${libdir}")
unset(ENV{PKG_CONFIG_PATH})

# 2. find_package(ZoltPano): the consumer and the examples.
run("configuring the consumer" ${CMAKE_COMMAND} -S "${CONSUMER_DIR}" -B "${WORK_DIR}/consumer"
    -G "${GENERATOR}" -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS=-Werror)
set(consumer_configured "${run_out}")
run("building the consumer" ${CMAKE_COMMAND} --build "${WORK_DIR}/consumer")
run("configuring the examples" ${CMAKE_COMMAND} -S "${EXAMPLES_DIR}" -B "${WORK_DIR}/examples"
    -G "${GENERATOR}" -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS=-Werror
    -DCMAKE_CXX_FLAGS=-Werror)
run("building the examples" ${CMAKE_COMMAND} --build "${WORK_DIR}/examples")

# The Java consumer against the moved jar, its JNI library found through java.library.path
# (which then finds the engine next to it); the CMake package names both.
if(JAVA)
  if(NOT consumer_configured MATCHES "ZoltPano::jni [^\n]*/libzoltpano_jni\\.so, jar ${prefix}/share/java/zoltpano\\.jar")
    message(FATAL_ERROR "find_package(ZoltPano) gave no ZoltPano::jni or ZoltPano_JAR:\n${consumer_configured}")
  endif()
  run("compiling Consumer.java" ${JAVAC} -Werror -d "${WORK_DIR}/java" -cp
      "${prefix}/share/java/zoltpano.jar" "${CONSUMER_DIR}/Consumer.java")
  run("running Consumer" ${JAVA} "-Djava.library.path=${libdir}"
      -cp "${prefix}/share/java/zoltpano.jar:${WORK_DIR}/java" Consumer)
  if(NOT run_out MATCHES "^ZOLT_PANO_v3\\.7\nERR_INVALID_DIMENSIONS: ZOLT_PANO_Initial[^\n]*\nERR_NOT_ENGINE: PanoramaEngine\\.encodeJpeg: the engine is closed\n$")
    message(FATAL_ERROR "Consumer printed:\n${run_out}\n${run_err}")
  endif()
endif()

expect_consumer("${WORK_DIR}/consumer_pc")
expect_consumer("${WORK_DIR}/consumer/zoltpano_consumer")
if(NOT CLI)
  message(STATUS "install, moved prefix, pkg-config and CMake package ok; no tool: examples not run")
  return()
endif()

# 3. The examples on a small sweep: 10 steady frames fix the direction and merge several key frames.
set(frames 10)
run("making the sweep" "${CLI}" simulate --preset steady --size 1280x720 --frames ${frames}
    --out "${WORK_DIR}/sweep" --force -q)
run("stitch_sweep (pkg-config build)" "${WORK_DIR}/stitch_sweep_pc" "${WORK_DIR}/sweep"
    "${WORK_DIR}/pano_c.jpg")
expect_quiet("stitch_sweep")
if(NOT run_out MATCHES "stitch_sweep: ${frames} frames, ([0-9]+) key frames, panorama [^\n]*/pano_c\\.jpg \\([1-9][0-9]* bytes, the same in memory\\)\n$")
  message(FATAL_ERROR "stitch_sweep printed:\n${run_out}")
endif()
if(CMAKE_MATCH_1 EQUAL 0)
  message(FATAL_ERROR "stitch_sweep merged no key frame:\n${run_out}")
endif()
file(READ "${WORK_DIR}/pano_c.jpg" head LIMIT 3 HEX)
if(NOT head STREQUAL "ffd8ff")
  message(FATAL_ERROR "pano_c.jpg is not a JPEG (it starts with '${head}')")
endif()
run("encode_to_memory" "${WORK_DIR}/examples/encode_to_memory" "${WORK_DIR}/sweep"
    "${WORK_DIR}/pano_cpp.jpg")
if(NOT run_out MATCHES "encode_to_memory: ([1-9][0-9]*) bytes in memory, ([0-9]+) bytes in [^\n]*: equal\n")
  message(FATAL_ERROR "encode_to_memory printed:\n${run_out}\n${run_err}")
endif()
if(NOT CMAKE_MATCH_1 EQUAL CMAKE_MATCH_2)
  message(FATAL_ERROR "encode_to_memory found the sizes different:\n${run_out}")
endif()
message(STATUS "install, moved prefix, pkg-config, CMake package and examples ok")
