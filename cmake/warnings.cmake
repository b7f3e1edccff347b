# Warning flags shared by every target of the project.
function(qorcfg_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wformat=2 -Wundef
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast>)
  if(QORCFG_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
