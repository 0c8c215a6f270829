# Fails when a library file includes a project header from a folder above its own. The floors,
# bottom up: include/ (the installed headers, a leaf); platform/; image/ and sensor/; tracker/
# and merger/; engine/ (the facade); api/ (the C functions, which reach the rest only through
# the facade). Run as cmake -DSOURCE_DIR=<repository> -P check_layers.cmake.
set(forbidden_include "api|engine|image|merger|platform|sensor|tracker")
set(forbidden_platform "api|engine|image|merger|sensor|tracker")
set(forbidden_image "api|engine|merger|sensor|tracker")
set(forbidden_sensor "api|engine|image|merger|tracker")
set(forbidden_tracker "api|engine|merger")
set(forbidden_merger "api|engine|tracker|sensor")
set(forbidden_engine "api")
set(forbidden_api "image|merger|sensor|tracker")

set(bad "")
foreach(floor include platform image sensor tracker merger engine api)
  file(GLOB_RECURSE sources RELATIVE ${SOURCE_DIR} ${SOURCE_DIR}/${floor}/*.h
       ${SOURCE_DIR}/${floor}/*.cpp)
  foreach(src IN LISTS sources)
    file(STRINGS ${SOURCE_DIR}/${src} includes REGEX "^#include \"")
    foreach(line IN LISTS includes)
      if(line MATCHES "^#include \"(${forbidden_${floor}})/")
        list(APPEND bad "${src}: ${line}")
      endif()
    endforeach()
  endforeach()
endforeach()
if(bad)
  list(JOIN bad "\n  " text)
  message(FATAL_ERROR "includes that run up the layers:\n  ${text}")
endif()
message(STATUS "every library include runs down the layers")
