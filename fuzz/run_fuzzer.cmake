cmake_minimum_required(VERSION 3.25)
# Runs one fuzzer for SECONDS from a fresh copy of its seed corpus; fails on
# any crash, leak or sanitizer report (libFuzzer exits non-zero).
#   cmake -DFUZZER=... -DSEEDS=... -DWORK=... -DDICT=... -DSECONDS=... -P run_fuzzer.cmake
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
file(GLOB seeds ${SEEDS}/*)
if(NOT seeds)
  message(FATAL_ERROR "no seeds in ${SEEDS}: a fuzzer that starts from nothing finds little")
endif()
file(COPY ${seeds} DESTINATION ${WORK})
execute_process(
  COMMAND ${FUZZER} -max_total_time=${SECONDS} -timeout=10 -rss_limit_mb=2048 -max_len=65536
          -dict=${DICT} -artifact_prefix=${WORK}/../ -print_final_stats=1 ${WORK}
  RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${FUZZER} found a failure (see the artifact next to ${WORK})")
endif()
