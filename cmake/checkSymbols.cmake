# cmake -DMAP=FILE -DSHARED=FILE -DSTATIC=FILE -DREADELF=PROGRAM -P checkSymbols.cmake
#
# Fails unless the shared library exports what its version script lists, and this is all that the
# sources mark as public. The linker says nothing when a listed name is not defined any more, hides
# a public one that is not listed, and takes in what a pattern matches.
cmake_policy(VERSION 3.25)

# The names of the symbols that are defined and visible outside.
function(visible_symbols Result Option File)
    execute_process(COMMAND ${READELF} -W ${Option} ${File} OUTPUT_VARIABLE Text
                    COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX MATCHALL " (GLOBAL|WEAK) +DEFAULT +[0-9]+ [^\n]+" Names "${Text}")
    list(TRANSFORM Names REPLACE ".* " "")
    list(REMOVE_DUPLICATES Names)
    set(${Result} ${Names} PARENT_SCOPE)
endfunction()

function(compare What Here Listed)
    set(Missing ${Listed})
    list(REMOVE_ITEM Missing ${Here})
    list(REMOVE_ITEM Here ${Listed})
    if(Missing OR Here)
        list(JOIN Missing " " Missing)
        list(JOIN Here " " Here)
        message(FATAL_ERROR "the names that ${What} are not those that ${MAP} lists\n"
                            "listed only: ${Missing}\nnot listed: ${Here}")
    endif()
endfunction()

file(STRINGS ${MAP} Lines)
foreach(Line IN LISTS Lines)
    if(Line MATCHES "^([A-Z0-9_.]+) {")
        set(Version ${CMAKE_MATCH_1})
    elseif(Line MATCHES "^ +([A-Za-z0-9_]+);")
        list(APPEND Listed ${CMAKE_MATCH_1})
        list(APPEND ListedVersions ${CMAKE_MATCH_1}@@${Version})
    endif()
endforeach()

visible_symbols(Exported --dyn-syms ${SHARED})
compare("the shared library exports" "${Exported}" "${ListedVersions}")

visible_symbols(Public --syms ${STATIC})
list(FILTER Public EXCLUDE REGEX "^_") # templates of the C++ library, and what sanitizers add
compare("are public in the sources" "${Public}" "${Listed}")
