# vorn_warnings(target): the warning set every target of this project is built with.
function(vorn_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    -Wsign-conversion -Wold-style-cast -Woverloaded-virtual)
  if(VORN_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
