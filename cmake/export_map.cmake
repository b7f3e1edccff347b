# Writes the linker version script of libqorcfg.so.1 from the exported
# header: every declaration that begins with QORCFG_API names one exported
# function or data object, the identifier before its first '(', '[' or ';'.
#   cmake -DOUT=<map> -DINCLUDE_DIR=<include> -P export_map.cmake
# With -DLIST=<file> it writes the bare names, one per line, instead.
cmake_minimum_required(VERSION 3.25)
file(GLOB headers ${INCLUDE_DIR}/qorcfg/*.h)
set(names)
foreach(header IN LISTS headers)
  file(READ ${header} text)
  # Drop comments so that QORCFG_API in prose is not taken for a declaration.
  string(REGEX REPLACE "/\\*([^*]|\\*+[^*/])*\\*+/" "" text "${text}")
  # Declarations start a line; the macro's own #define does not. (MATCHALL
  # returns a list, so the ';' that ends each declaration is left out.)
  string(REGEX MATCHALL "\nQORCFG_API[^;]*" decls "\n${text}")
  foreach(decl IN LISTS decls)
    string(REGEX MATCH "QORCFG_API[^([]*" head "${decl}")
    string(REGEX MATCH "[A-Za-z_][A-Za-z0-9_]*[ \t\r\n]*$" name "${head}")
    string(STRIP "${name}" name)
    if(name STREQUAL "")
      message(FATAL_ERROR "cannot find the name in: ${decl}")
    endif()
    list(APPEND names ${name})
  endforeach()
endforeach()
list(REMOVE_DUPLICATES names)
list(SORT names)
if(DEFINED LIST)
  list(JOIN names "\n" body)
  file(WRITE ${LIST} "${body}\n")
else()
  list(JOIN names ";\n    " body)
  # An anonymous version node: the exported names carry no symbol version.
  file(WRITE ${OUT} "{\n  global:\n    ${body};\n  local:\n    *;\n};\n")
endif()
