# Runs Doxygen over the public headers and fails, listing them, when public names have no
# comment of their own.
get_filename_component(output ${WARNINGS} DIRECTORY)
file(MAKE_DIRECTORY ${output})
execute_process(COMMAND ${DOXYGEN} ${DOXYFILE} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "doxygen failed (${rc})")
endif()
file(STRINGS ${WARNINGS} undocumented REGEX "is not documented")
if(undocumented)
  list(REMOVE_DUPLICATES undocumented)
  list(JOIN undocumented "\n" text)
  message(FATAL_ERROR "public names without a comment:\n${text}")
endif()
