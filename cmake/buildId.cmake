# cmake -DSOURCE=FOLDER -DOUTPUT=HEADER [-DBUILD_ID=TEXT] -P buildId.cmake
#
# Writes the header with the build's identifier: the abbreviated commit of SOURCE, "unknown" where it
# is no repository. It is touched only when that changed.
cmake_policy(VERSION 3.25)

if(NOT BUILD_ID)
    set(BUILD_ID unknown)
    if(EXISTS ${SOURCE}/.git)
        execute_process(COMMAND git -C ${SOURCE} -c safe.directory=* rev-parse --short HEAD
                        OUTPUT_VARIABLE Commit ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE
                        RESULT_VARIABLE Status)
        if(Status EQUAL 0)
            set(BUILD_ID ${Commit})
        endif()
    endif()
endif()
file(CONFIGURE OUTPUT ${OUTPUT} CONTENT "#define RTC_BUILD_ID \"@BUILD_ID@\"\n" @ONLY)
