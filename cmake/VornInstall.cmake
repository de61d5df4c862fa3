# Install rules, the CMake package and the pkg-config file: after `cmake --install`, a client
# writes find_package(vorn CONFIG REQUIRED) and links vorn::vorn, or asks `pkg-config vorn`; the
# host stand-in comes along. Each file belongs to a component, one Debian package each
# (cmake/VornPackage.cmake): runtime, development, tools, python.
include(CMakePackageConfigHelpers)

set(VORN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vorn)
set(VORN_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS vorn vorn_operators ${VORN_HOST_TARGETS} EXPORT vorn-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/vorn ${PROJECT_BINARY_DIR}/include/vorn
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
foreach(host_dir ${VORN_HOST_INCLUDE_DIRS})
  install(DIRECTORY ${host_dir}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
endforeach()
if(VORN_BUILD_TOOLS)
  install(TARGETS vorn-run RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()
install(EXPORT vorn-targets NAMESPACE vorn:: DESTINATION ${VORN_CMAKE_DIR}
  COMPONENT development)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vorn-config.cmake.in
  ${PROJECT_BINARY_DIR}/vorn-config.cmake INSTALL_DESTINATION ${VORN_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vorn-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vorn-config.cmake ${PROJECT_BINARY_DIR}/vorn-config-version.cmake
  DESTINATION ${VORN_CMAKE_DIR} COMPONENT development)

# The prefix is found from the .pc file's own place, so the file holds wherever it is installed
# (a --prefix given at install time, a package unpacked into a scratch root).
file(RELATIVE_PATH VORN_PC_TO_PREFIX /prefix/${VORN_PKGCONFIG_DIR} /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/vorn.pc.in ${PROJECT_BINARY_DIR}/vorn.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vorn.pc DESTINATION ${VORN_PKGCONFIG_DIR}
  COMPONENT development)

export(EXPORT vorn-targets NAMESPACE vorn:: FILE ${PROJECT_BINARY_DIR}/vorn-targets.cmake)
