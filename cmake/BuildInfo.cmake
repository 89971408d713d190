# Version (project()'s, the one source of it), branch, revision and date of the source, in generated/BuildInfo.h. Included from the top level,
# it writes the header once and adds a target that runs this file again as a script at every
# build, so the header follows later commits; the file is rewritten only when its text changes.
if(NOT CMAKE_SCRIPT_MODE_FILE)
    set(ORVANTA_BUILD_INFO_HEADER ${CMAKE_BINARY_DIR}/generated/BuildInfo.h)
    set(_args -DSOURCE_DIR=${CMAKE_SOURCE_DIR} -DOUTPUT=${ORVANTA_BUILD_INFO_HEADER}
        -DORVANTA_VERSION=${PROJECT_VERSION})
    execute_process(COMMAND ${CMAKE_COMMAND} ${_args} -P ${CMAKE_CURRENT_LIST_FILE})
    add_custom_target(orvanta_buildinfo
        COMMAND ${CMAKE_COMMAND} ${_args} -P ${CMAKE_CURRENT_LIST_FILE}
        BYPRODUCTS ${ORVANTA_BUILD_INFO_HEADER}
        COMMENT "Refreshing the build information"
        VERBATIM)
    return()
endif()

set(ORVANTA_GIT_BRANCH "unknown")
set(ORVANTA_GIT_COMMIT "unknown")
find_package(Git QUIET)
if(GIT_FOUND AND EXISTS ${SOURCE_DIR}/.git)
    execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse --abbrev-ref HEAD
        WORKING_DIRECTORY ${SOURCE_DIR}
        OUTPUT_VARIABLE _branch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE _rb)
    execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse HEAD
        WORKING_DIRECTORY ${SOURCE_DIR}
        OUTPUT_VARIABLE _commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE _rc)
    if(_rb EQUAL 0 AND _branch)
        set(ORVANTA_GIT_BRANCH "${_branch}")
    endif()
    if(_rc EQUAL 0 AND _commit)
        set(ORVANTA_GIT_COMMIT "${_commit}")
    endif()
endif()
# "Nov 22 2026", the form of the compiler's __DATE__ without its padding quirk
string(TIMESTAMP ORVANTA_BUILD_DATE "%b %d %Y")
# configure_file leaves an unchanged header alone, so nothing recompiles for nothing.
configure_file(${CMAKE_CURRENT_LIST_DIR}/BuildInfo.h.in ${OUTPUT} @ONLY)
