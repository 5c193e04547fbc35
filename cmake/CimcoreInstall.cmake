include(CMakePackageConfigHelpers)

install(TARGETS cimcore cimcore_platform_headers
  EXPORT cimcoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/cimcore DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY internal/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/cimcore/internal
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY platform/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/cimcore/platform
  FILES_MATCHING PATTERN "*.h")

install(EXPORT cimcoreTargets
  NAMESPACE cimcore::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/cimcore)
configure_package_config_file(cmake/cimcoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/cimcoreConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/cimcore)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cimcoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cimcoreConfig.cmake
              ${PROJECT_BINARY_DIR}/cimcoreConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/cimcore)

configure_file(cmake/cimcore.pc.in ${PROJECT_BINARY_DIR}/cimcore.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/cimcore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
