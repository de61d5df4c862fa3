# Install rules and the CMake package: after `cmake --install`, a client writes
# find_package(vorn CONFIG REQUIRED) and links vorn::vorn; the host stand-in comes along.
include(CMakePackageConfigHelpers)

set(VORN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vorn)

install(TARGETS vorn vorn_operators ${VORN_HOST_TARGETS} EXPORT vorn-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/vorn ${PROJECT_BINARY_DIR}/include/vorn
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
foreach(host_dir ${VORN_HOST_INCLUDE_DIRS})
  install(DIRECTORY ${host_dir}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endforeach()
if(VORN_BUILD_TOOLS)
  install(TARGETS vorn-run RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(EXPORT vorn-targets NAMESPACE vorn:: DESTINATION ${VORN_CMAKE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vorn-config.cmake.in
  ${PROJECT_BINARY_DIR}/vorn-config.cmake INSTALL_DESTINATION ${VORN_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vorn-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vorn-config.cmake ${PROJECT_BINARY_DIR}/vorn-config-version.cmake
  DESTINATION ${VORN_CMAKE_DIR})

export(EXPORT vorn-targets NAMESPACE vorn:: FILE ${PROJECT_BINARY_DIR}/vorn-targets.cmake)
