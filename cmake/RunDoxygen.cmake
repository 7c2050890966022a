# cmake -DDOXYGEN=... -DDOXYFILE=... -DWARNINGS=... -P RunDoxygen.cmake
# Runs Doxygen and fails when it warned about anything: the warnings go to
# a file (WARN_LOGFILE), printed here when there are any.
file(REMOVE ${WARNINGS})
execute_process(COMMAND ${DOXYGEN} ${DOXYFILE} RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "doxygen failed with status ${status}")
endif()
if(EXISTS ${WARNINGS})
    file(READ ${WARNINGS} warnings)
    if(NOT warnings STREQUAL "")
        message("${warnings}")
        message(FATAL_ERROR "doxygen: warnings in the API reference (see above)")
    endif()
endif()
message(STATUS "doxygen: API reference written without warnings")
