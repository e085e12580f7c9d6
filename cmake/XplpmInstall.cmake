# Install libxplpm with its headers, a CMake package (find_package(xplpm) -> xplpm::xplpm)
# and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS xplpm xplpm_xdk EXPORT xplpmTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/xplpm)

foreach(dir platform xdk XpLpm XpLpmNextHop XpLpmConfigurator)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${dir}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/xplpm/${dir}
    FILES_MATCHING PATTERN "*.h")
endforeach()

install(EXPORT xplpmTargets NAMESPACE xplpm:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/xplpm)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/xplpmConfig.cmake.in
  ${PROJECT_BINARY_DIR}/xplpmConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/xplpm)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/xplpmConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/xplpmConfig.cmake ${PROJECT_BINARY_DIR}/xplpmConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/xplpm)

# The pkg-config file finds the prefix from its own place: lib/pkgconfig -> ../..
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  message(FATAL_ERROR "xplpm.pc needs a relative CMAKE_INSTALL_LIBDIR, not ${CMAKE_INSTALL_LIBDIR}")
endif()
file(RELATIVE_PATH XPLPM_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(${PROJECT_SOURCE_DIR}/cmake/xplpm.pc.in ${PROJECT_BINARY_DIR}/xplpm.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/xplpm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
