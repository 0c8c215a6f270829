# cmake --install: the library with the gyroscope fusion library next to it, the public header,
# a CMake package (find_package(ZoltPano) -> ZoltPano::zoltpano) and a pkg-config file. Host
# builds add the host sensor service and its header (ZoltPano::host_sensor); builds with a JDK
# the Java binding (ZoltPano::jni, share/java/zoltpano.jar; java/CMakeLists.txt installs them).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(_zp_install_targets zoltpano zoltpano_gyro)
if(TARGET zoltpano_host_sensor)
  list(APPEND _zp_install_targets zoltpano_host_sensor)
endif()
# The installed engine finds the libraries installed with it.
if(NOT APPLE)
  set_target_properties(zoltpano PROPERTIES INSTALL_RPATH "${CMAKE_INSTALL_RPATH};$ORIGIN")
endif()
install(TARGETS ${_zp_install_targets} EXPORT ZoltPanoTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT ZoltPanoTargets NAMESPACE ZoltPano::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZoltPano)

set(ZP_JAR_PATH ${CMAKE_INSTALL_DATADIR}/java/zoltpano.jar)  # installed by java/ when built
configure_package_config_file(cmake/ZoltPanoConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/ZoltPanoConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZoltPano
  PATH_VARS ZP_JAR_PATH)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ZoltPanoConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ZoltPanoConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/ZoltPanoConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZoltPano)

# pkg-config: zoltpano.pc, and on host builds zoltpano-host-sensor.pc. Both name their prefix
# relative to their own folder (${pcfiledir}), so that an installed tree works wherever it is
# installed or moved to: lib/pkgconfig gives ${pcfiledir}/../.., a libdir such as
# lib/x86_64-linux-gnu ${pcfiledir}/../../... An absolute CMAKE_INSTALL_LIBDIR or INCLUDEDIR pins
# the files to that place and is written as it stands (that tree cannot move).
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(ZP_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(ZP_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  file(RELATIVE_PATH _zp_pc_up "/zp/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/zp")
  string(REGEX REPLACE "/$" "" _zp_pc_up "${_zp_pc_up}")
  set(ZP_PC_PREFIX "\${pcfiledir}/${_zp_pc_up}")
  set(ZP_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(ZP_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(ZP_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()

# A consumer links -lzoltpano alone: the shared library names what it needs itself (DT_NEEDED)
# and finds the libraries installed with it through $ORIGIN. Libs.private lists those for
# `pkg-config --static`. No Requires.private: OpenCV's Android SDK ships no .pc file, and a
# required module that is missing would fail every query, not only static ones.
set(_zp_pc_private "-L\${libdir} -lzoltpano_gyro")
if(ANDROID)
  string(APPEND _zp_pc_private " -landroid -llog")
else()
  string(APPEND _zp_pc_private " -lzoltpano_host_sensor")
endif()
foreach(_zp_lib IN LISTS OpenCV_LIBS)
  string(APPEND _zp_pc_private " -l${_zp_lib}")
endforeach()
string(APPEND _zp_pc_private " -lhwy -lyuv -lexif")
if(NOT ANDROID)
  string(APPEND _zp_pc_private " -L${_zp_log_target_dir} -llog -lstdc++ -lm")
endif()
set(_zp_pc_threads "${CMAKE_THREAD_LIBS_INIT}")
set(ZP_PC_LIBS_PRIVATE "${_zp_pc_private} ${_zp_pc_threads}")
string(STRIP "${ZP_PC_LIBS_PRIVATE}" ZP_PC_LIBS_PRIVATE)
configure_file(cmake/zoltpano.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zoltpano.pc @ONLY)
set(_zp_pc_files ${CMAKE_CURRENT_BINARY_DIR}/zoltpano.pc)
if(TARGET zoltpano_host_sensor)
  set(ZP_PC_LIBS_PRIVATE "-lstdc++ ${_zp_pc_threads}")
  string(STRIP "${ZP_PC_LIBS_PRIVATE}" ZP_PC_LIBS_PRIVATE)
  configure_file(cmake/zoltpano-host-sensor.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zoltpano-host-sensor.pc
                 @ONLY)
  list(APPEND _zp_pc_files ${CMAKE_CURRENT_BINARY_DIR}/zoltpano-host-sensor.pc)
endif()
install(FILES ${_zp_pc_files} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
