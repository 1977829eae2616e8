# Compares what a shared library exports with a list:
#   cmake -DNM=... -DLIBRARY=... -DEXPECTED=list.txt -P exports.cmake
execute_process(
    COMMAND "${NM}" -D --defined-only --format=posix "${LIBRARY}"
    OUTPUT_VARIABLE output
    COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+" symbols "${output}")
list(TRANSFORM symbols REPLACE " .*" "")
list(SORT symbols)
file(STRINGS "${EXPECTED}" expected)
list(SORT expected)
set(missing ${expected})
list(REMOVE_ITEM missing ${symbols})
set(unexpected ${symbols})
list(REMOVE_ITEM unexpected ${expected})
if(missing OR unexpected)
    message(FATAL_ERROR "${LIBRARY}\nnot exported: ${missing}\nexported besides: ${unexpected}")
endif()
