# run_step(COMMAND...): runs a command and stops the script when it fails.
function(run_step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "step failed (${rc}): ${ARGN}")
  endif()
endfunction()
