# SPDX-License-Identifier: Apache-2.0
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
# A link between pages that Doxygen could not turn into a page of the
# reference stays a raw link to a .md file (a "page.md#section" link, or a
# page missing from INPUT): broken in the HTML, though Doxygen is silent.
get_filename_component(html_dir ${DOXYFILE} DIRECTORY)
file(GLOB html_pages ${html_dir}/html/*.html)
set(raw_links "")
foreach(page ${html_pages})
    file(STRINGS ${page} lines REGEX "href=\"[^\":]*\\.md[#\"]")
    foreach(line ${lines})
        string(REGEX MATCHALL "href=\"[^\":]*\\.md[^\"]*\"" hrefs "${line}")
        get_filename_component(name ${page} NAME)
        list(APPEND raw_links "${name}: ${hrefs}")
    endforeach()
endforeach()
if(raw_links)
    string(REPLACE ";" "\n" raw_links "${raw_links}")
    message("${raw_links}")
    message(FATAL_ERROR "doxygen: links to .md files that are not pages of the reference "
        "(link a page as [text](page.md), without #section, and list it in INPUT)")
endif()
message(STATUS "doxygen: API reference written without warnings or unresolved page links")
