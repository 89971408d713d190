# Branch, revision and date of the source, fixed at configure time.
set(ORVANTA_GIT_BRANCH "unknown")
set(ORVANTA_GIT_COMMIT "unknown")
find_package(Git QUIET)
if(GIT_FOUND AND EXISTS ${CMAKE_SOURCE_DIR}/.git)
    execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse --abbrev-ref HEAD
        WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
        OUTPUT_VARIABLE _branch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE _rb)
    execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse HEAD
        WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
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
configure_file(${CMAKE_SOURCE_DIR}/cmake/BuildInfo.h.in ${CMAKE_BINARY_DIR}/generated/BuildInfo.h @ONLY)
