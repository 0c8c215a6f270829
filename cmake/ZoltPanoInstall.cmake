# cmake --install: the library, the one public header, a CMake package
# (find_package(ZoltPano) -> ZoltPano::zoltpano) and a pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS zoltpano EXPORT ZoltPanoTargets
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

configure_file(cmake/zoltpano.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zoltpano.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zoltpano.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
