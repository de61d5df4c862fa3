# Installs the vorn build into a fresh prefix, then configures, builds and runs the consumer
# project against that prefix alone.
set(prefix ${WORK_DIR}/prefix)
set(build ${WORK_DIR}/build)
file(REMOVE_RECURSE ${WORK_DIR})

include(${CMAKE_CURRENT_LIST_DIR}/RunStep.cmake)

run_step(${CMAKE_COMMAND} --install ${VORN_BUILD_DIR} --prefix ${prefix})
run_step(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE_DIR} -B ${build}
  -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER})
run_step(${CMAKE_COMMAND} --build ${build})
run_step(${build}/consumer)
