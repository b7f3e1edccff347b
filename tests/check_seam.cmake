# Fails when a library or daemon source outside os/ calls an operating-system
# function directly instead of through the seam (qorcfg::os::...).
#   cmake -DSOURCE_DIR=... -P check_seam.cmake
cmake_minimum_required(VERSION 3.25)
set(dirs xml store change apply validate backup sys wlan daemon)
set(calls fopen freopen fdopen open creat popen pclose system kill unlink remove rmdir mkdir
          access stat lstat readlink symlink opendir chdir rename truncate flock socket connect
          send recv ioctl mmap time gettimeofday read write fstat fsync bind listen accept
          accept4)
list(JOIN calls "|" alternatives)
# Calls through the seam are renamed first; what is left, plain, "::" or
# "std::" qualified, is a direct call. Member calls (.open, ->send) are not.
set(pattern "(^|[^_a-zA-Z0-9.>])(${alternatives})[ \t]*\\(")
set(found)
foreach(dir IN LISTS dirs)
  file(GLOB_RECURSE sources ${SOURCE_DIR}/${dir}/*.cpp ${SOURCE_DIR}/${dir}/*.h)
  foreach(source IN LISTS sources)
    file(STRINGS ${source} lines)
    set(number 0)
    foreach(line IN LISTS lines)
      math(EXPR number "${number} + 1")
      if(line MATCHES "^[ \t]*(//|/\\*|\\*)")
        continue()
      endif()
      string(REGEX REPLACE "//.*$" "" code "${line}")
      string(REGEX REPLACE "\"([^\"\\\\]|\\\\.)*\"" "\"\"" code "${code}")
      string(REGEX REPLACE "(qorcfg::)?os::" "seam_" code "${code}")
      if(code MATCHES "${pattern}")
        file(RELATIVE_PATH rel ${SOURCE_DIR} ${source})
        list(APPEND found "${rel}:${number}: ${line}")
      endif()
    endforeach()
  endforeach()
endforeach()
if(found)
  list(JOIN found "\n  " shown)
  message(FATAL_ERROR "system calls outside os/:\n  ${shown}")
endif()
