# A build configured without a preset, with a user's own flags, reports
# warnings but does not turn them into errors (the presets do).
#   cmake -DSOURCE_DIR=... -DSCRATCH=... -DGENERATOR=... -P check_user_build.cmake
cmake_minimum_required(VERSION 3.25)
set(dir ${SCRATCH}/user-build)
file(REMOVE_RECURSE ${dir})
execute_process(
  COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${dir} -G ${GENERATOR}
          -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS=-fsanitize=address,undefined"
          -DQORCFG_TESTS=OFF -DQORCFG_BENCH=OFF
  RESULT_VARIABLE status OUTPUT_QUIET ERROR_VARIABLE errors)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "configuring without a preset failed:\n${errors}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${dir} -t help OUTPUT_QUIET)
file(GLOB_RECURSE build_files ${dir}/*.ninja ${dir}/*flags.make)
set(flags "")
foreach(f IN LISTS build_files)
  file(READ ${f} text)
  string(APPEND flags "${text}")
endforeach()
file(REMOVE_RECURSE ${dir})
if(NOT flags MATCHES "-Wall")
  message(FATAL_ERROR "the library is not compiled with its warnings")
endif()
if(flags MATCHES "-Werror")
  message(FATAL_ERROR "a build configured without a preset turns warnings into errors")
endif()
