# Runs PROGRAM and fails unless it exits with 0 and its standard output is
# exactly the text of the file EXPECTED.
#
#   cmake -DPROGRAM=<program> -DEXPECTED=<file> -P expect_output.cmake
if(NOT PROGRAM OR NOT EXPECTED)
  message(FATAL_ERROR "usage: cmake -DPROGRAM=<program> -DEXPECTED=<file> -P expect_output.cmake")
endif()
execute_process(COMMAND ${PROGRAM}
  RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors)
file(READ ${EXPECTED} expected)
if(NOT status STREQUAL "0")
  message(FATAL_ERROR "${PROGRAM} exited with ${status}; it printed:\n${output}${errors}")
endif()
if(NOT output STREQUAL expected)
  message(FATAL_ERROR "${PROGRAM} printed:\n${output}${errors}\nexpected (${EXPECTED}):\n${expected}")
endif()
message(STATUS "${PROGRAM}: exit status 0 and the expected output")
