include(CMakePackageConfigHelpers)

# The API only: the public headers, the legacy runtime's headers (public
# under cimcore/internal/lsc/) and the connection template's declaration,
# which the public connection headers include.
install(TARGETS cimcore
  EXPORT cimcoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/cimcore DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES internal/CIMIpConnection.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/cimcore/internal)
install(DIRECTORY internal/lsc/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/cimcore/internal/lsc
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

# pkg-config has no run-time prefix of its own: the file is written at
# install time, so `cmake --install --prefix` gives the right paths.
install(CODE "
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  set(CMAKE_INSTALL_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(CMAKE_INSTALL_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/cimcore.pc.in\" \"${PROJECT_BINARY_DIR}/pc/cimcore.pc\" @ONLY)
  file(INSTALL \"${PROJECT_BINARY_DIR}/pc/cimcore.pc\"
       DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig\")")
