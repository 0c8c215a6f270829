# cmake --install: the library with the gyroscope fusion library next to it, the public header,
# a CMake package (find_package(ZoltPano) -> ZoltPano::zoltpano) and a pkg-config file. Host
# builds add the host sensor service and its header (ZoltPano::host_sensor).
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

configure_package_config_file(cmake/ZoltPanoConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/ZoltPanoConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZoltPano)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ZoltPanoConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ZoltPanoConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/ZoltPanoConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZoltPano)

# The pkg-config file names the prefix given at install time (cmake --install --prefix), which
# may differ from the one configured: everything else is filled in now, the prefix when
# installing.
set(ZP_PC_PREFIX "@CMAKE_INSTALL_PREFIX@")
foreach(_zp_kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${_zp_kind}}")
    set(ZP_PC_${_zp_kind} "${CMAKE_INSTALL_${_zp_kind}}")
  else()
    set(ZP_PC_${_zp_kind} "\${prefix}/${CMAKE_INSTALL_${_zp_kind}}")
  endif()
endforeach()
configure_file(cmake/zoltpano.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zoltpano.pc.stage @ONLY)
install(CODE "configure_file([==[${CMAKE_CURRENT_BINARY_DIR}/zoltpano.pc.stage]==]
                             [==[${CMAKE_CURRENT_BINARY_DIR}/zoltpano.pc]==] @ONLY)")
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zoltpano.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
