# Run by CTest: the module's dynamic symbol table defines exactly
# GetAPITable and gTable. Arguments: -DNM=<nm> -DMODULE=<library>.
execute_process(COMMAND ${NM} -D --defined-only ${MODULE}
  OUTPUT_VARIABLE listing RESULT_VARIABLE status ERROR_VARIABLE errors)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${MODULE}: ${errors}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${listing}")
set(names)
foreach(line IN LISTS lines)
  # "<address> <type> <name>"; the name is the last field.
  string(REGEX REPLACE "^.* " "" name "${line}")
  list(APPEND names "${name}")
endforeach()
list(SORT names)
if(NOT names STREQUAL "GetAPITable;gTable")
  message(FATAL_ERROR "${MODULE} defines dynamic symbols other than GetAPITable and gTable:\n${listing}")
endif()
message(STATUS "exports: ${names}")
