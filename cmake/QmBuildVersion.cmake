# The build identification logged at start-up: "yymmdd:HHMMSS <16 hex digits of the revision>@production".
# Written on every build, not only at configure time, so that an incremental build after new
# commits does not log a stale date and revision. Run as a script: cmake -DSOURCE_DIR=.. -DOUTPUT=.. -P.
if(CMAKE_SCRIPT_MODE_FILE)
    string(TIMESTAMP QM_BUILD_STAMP "%y%m%d:%H%M%S" UTC)
    execute_process(
        COMMAND git rev-parse HEAD
        WORKING_DIRECTORY ${SOURCE_DIR}
        OUTPUT_VARIABLE QM_SOURCE_REVISION
        OUTPUT_STRIP_TRAILING_WHITESPACE
        ERROR_QUIET)
    if(QM_SOURCE_REVISION MATCHES "^[0-9a-f]+$")
        string(SUBSTRING "${QM_SOURCE_REVISION}0000000000000000" 0 16 QM_SOURCE_REVISION)
    else()
        set(QM_SOURCE_REVISION "0000000000000000")
    endif()
    set(QM_BUILD_VERSION "${QM_BUILD_STAMP} ${QM_SOURCE_REVISION}@production")
    configure_file(${CMAKE_CURRENT_LIST_DIR}/build_version.hpp.in ${OUTPUT} @ONLY)
    return()
endif()

set(QM_BUILD_VERSION_HEADER ${CMAKE_CURRENT_BINARY_DIR}/generated/build_version.hpp)
add_custom_target(qm_build_version
    COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${CMAKE_CURRENT_SOURCE_DIR} -DOUTPUT=${QM_BUILD_VERSION_HEADER}
            -P ${CMAKE_CURRENT_LIST_FILE}
    BYPRODUCTS ${QM_BUILD_VERSION_HEADER}
    COMMENT "Stamping the build version")
