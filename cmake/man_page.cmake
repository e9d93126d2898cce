# Writes the tool's manual page: cmake -DTOOL=<kestrel> -DOUTPUT=<file> -P this file
execute_process(COMMAND ${TOOL} manual OUTPUT_VARIABLE page RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR page STREQUAL "")
  message(FATAL_ERROR "${TOOL} manual failed (${rc})")
endif()
file(WRITE ${OUTPUT} "${page}")
