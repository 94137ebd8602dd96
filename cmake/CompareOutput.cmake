# cmake -DPROGRAM=… -DEXPECTED=… -P CompareOutput.cmake: runs the program and compares what it prints with the file.
execute_process(COMMAND ${PROGRAM} OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE status)
file(READ ${EXPECTED} expected)
if(NOT status EQUAL 0 OR NOT output STREQUAL expected)
    message(FATAL_ERROR "exit status ${status}, output:\n${output}\nexpected:\n${expected}")
endif()
