cmake_minimum_required(VERSION 3.25)
# Fails when a C or C++ source of the project differs from what
# clang-format makes of it.
#   cmake -DSOURCE_DIR=... -DCLANG_FORMAT=... -P check_format.cmake
set(dirs include xml store change apply validate backup sys wlan os platform daemon tools tests
         bench fuzz)
set(files)
foreach(dir IN LISTS dirs)
  file(GLOB_RECURSE found ${SOURCE_DIR}/${dir}/*.c ${SOURCE_DIR}/${dir}/*.cpp ${SOURCE_DIR}/${dir}/*.h)
  list(APPEND files ${found})
endforeach()
execute_process(COMMAND ${CLANG_FORMAT} --dry-run --Werror ${files}
                WORKING_DIRECTORY ${SOURCE_DIR} RESULT_VARIABLE rc ERROR_VARIABLE report)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "clang-format would change these sources (run clang-format -i):\n${report}")
endif()
