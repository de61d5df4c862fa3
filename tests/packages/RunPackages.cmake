# Builds the Debian packages of the vorn build, unpacks them into a scratch root (dpkg -x; nothing
# is installed on the machine), then builds and runs tests/consumer against the unpacked files
# alone: through the CMake package, and through pkg-config. Also runs the packaged vorn-run and,
# when packaged, imports the Python module; each package, the CMake package, vorn-run and the
# module must carry the project's version.
set(root ${WORK_DIR}/root)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${root})

include(${CMAKE_CURRENT_LIST_DIR}/../consumer/RunStep.cmake)

function(expect_version what text)
  if(NOT text MATCHES "(^| )${VORN_VERSION}$")
    message(FATAL_ERROR "${what} says version '${text}', the project is ${VORN_VERSION}")
  endif()
endfunction()

run_step(${CMAKE_CPACK_COMMAND} --config ${VORN_BUILD_DIR}/CPackConfig.cmake -G DEB
  -B ${WORK_DIR}/debs)
file(GLOB debs ${WORK_DIR}/debs/*.deb)
foreach(deb ${debs})
  message(STATUS "unpacking ${deb}")
  run_step(dpkg-deb --info ${deb})
  run_step(dpkg -x ${deb} ${root})
  execute_process(COMMAND dpkg-deb -f ${deb} Version OUTPUT_VARIABLE version
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  expect_version("${deb}" "${version}")
endforeach()
file(GLOB_RECURSE version_files ${root}/*/vorn-config-version.cmake)
file(STRINGS "${version_files}" version REGEX "set\\(PACKAGE_VERSION \"[0-9]")
string(REGEX REPLACE ".*\"(.*)\".*" "\\1" version "${version}")
expect_version("the CMake package" "${version}")

# The worker pool is linked privately: the runtime package needs oneTBB's library, and no
# installed header may ask a client for oneTBB's headers.
file(GLOB runtime_deb ${WORK_DIR}/debs/libvorn[0-9]*.deb)
execute_process(COMMAND dpkg-deb --field ${runtime_deb} Depends OUTPUT_VARIABLE depends
  COMMAND_ERROR_IS_FATAL ANY)
if(NOT depends MATCHES "libtbb")
  message(FATAL_ERROR "the runtime package does not depend on oneTBB: ${depends}")
endif()
file(GLOB_RECURSE headers ${root}/usr/include/vorn/*.hpp)
foreach(header ${headers})
  file(STRINGS ${header} tbb_lines REGEX "include.*tbb")
  if(tbb_lines)
    message(FATAL_ERROR "${header} includes oneTBB: ${tbb_lines}")
  endif()
endforeach()

run_step(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE_DIR} -B ${WORK_DIR}/cmake-consumer
  -DCMAKE_PREFIX_PATH=${root}/usr -DCMAKE_CXX_COMPILER=${CXX_COMPILER})
run_step(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-consumer)
run_step(${WORK_DIR}/cmake-consumer/consumer)

file(GLOB_RECURSE pc_files ${root}/*/vorn.pc)
get_filename_component(pc_dir "${pc_files}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
execute_process(COMMAND pkg-config --cflags --libs vorn OUTPUT_VARIABLE flags
  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(flags UNIX_COMMAND "${flags}")
string(REGEX REPLACE ".*-L([^ ;]*).*" "\\1" libdir "${flags}")
run_step(${CXX_COMPILER} ${CONSUMER_SOURCE_DIR}/main.cpp -o ${WORK_DIR}/pc-consumer ${flags}
  -Wl,-rpath,${libdir})
run_step(${WORK_DIR}/pc-consumer)

execute_process(COMMAND ${root}/usr/bin/vorn-run --version OUTPUT_VARIABLE version
  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
expect_version("vorn-run --version" "${version}")
if(EXISTS ${root}/usr/lib/python3/dist-packages/vorn)
  set(ENV{PYTHONPATH} ${root}/usr/lib/python3/dist-packages)
  run_step(${PYTHON_EXECUTABLE} -c "import vorn; print(vorn.__file__, vorn.operatorNames())")
  execute_process(COMMAND ${PYTHON_EXECUTABLE} -c "import vorn; print(vorn.__version__)"
    OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  expect_version("vorn.__version__" "${version}")
endif()
