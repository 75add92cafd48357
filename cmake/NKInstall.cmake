# Installation: library, headers, resources, CMake package and pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS nkutils_shared nkutils_static EXPORT NKUtilsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

foreach(h IN LISTS NK_PUBLIC_HEADERS)
  file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${h})
  get_filename_component(dir ${rel} DIRECTORY)
  install(FILES ${h} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir})
endforeach()

install(DIRECTORY ${PROJECT_SOURCE_DIR}/resources/
  DESTINATION ${CMAKE_INSTALL_DATADIR}/nkutils)

install(EXPORT NKUtilsTargets NAMESPACE NK::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/NKUtils)
configure_package_config_file(cmake/NKUtilsConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/NKUtilsConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/NKUtils)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/NKUtilsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/NKUtilsConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/NKUtilsConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/NKUtils)

configure_file(cmake/nkutils.pc.in ${CMAKE_CURRENT_BINARY_DIR}/nkutils.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/nkutils.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
