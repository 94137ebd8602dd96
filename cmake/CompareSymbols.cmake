# cmake -DNM=… -DLIBRARY=… -DEXPECTED=… [-DUPDATE=ON] -P CompareSymbols.cmake: compares what the library exports with the
# file, which makes a change of the interface seen; UPDATE writes the file. What templates of others leave behind differs
# from compiler to compiler and is left out.
execute_process(COMMAND ${NM} --dynamic --defined-only --demangle ${LIBRARY}
    OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[0-9a-f]+ ([TDB]|V typeinfo for zel::|V vtable for zel::)[^\n]*" lines "${output}")
list(TRANSFORM lines REPLACE "^[0-9a-f]+ . " "")
list(SORT lines)
list(REMOVE_DUPLICATES lines)
list(JOIN lines "\n" symbols)
string(APPEND symbols "\n")
if(UPDATE)
    file(WRITE ${EXPECTED} "${symbols}")
    return()
endif()

file(STRINGS ${EXPECTED} expected)
set(added ${lines})
list(REMOVE_ITEM added ${expected})
set(removed ${expected})
list(REMOVE_ITEM removed ${lines})
if(added OR removed)
    list(JOIN added "\n  + " added)
    list(JOIN removed "\n  - " removed)
    message(FATAL_ERROR "The interface has changed; if that is meant, build the target update-symbols.\n"
        "  + ${added}\n  - ${removed}")
endif()
