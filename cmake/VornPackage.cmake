# Debian packages through CPack (`cpack -G DEB` in the build folder): the runtime libraries, the
# development files, the vorn-run tool and the Python module, each depending on the Debian
# packages it needs.
set(CPACK_PACKAGE_NAME vorn)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Demand-driven image-processing pipelines")
set(CPACK_PACKAGE_CONTACT "vorn developers <vorn@localhost>")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
if(TARGET _vorn)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

set(vorn_runtime "libvorn${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}")
set(vorn_exact "${vorn_runtime} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${vorn_runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# Found by dpkg-shlibdeps from what the libraries link: libpng, libtiff, GDCM, the NIfTI
# library, zlib, the C++ runtime.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvorn-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${vorn_exact}, libboost-dev (>= 1.74)")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vorn-run)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${vorn_exact}, libc6, libstdc++6")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-vorn)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "${vorn_exact}, ${VORN_PYTHON_DEPENDS}")
include(CPack)
