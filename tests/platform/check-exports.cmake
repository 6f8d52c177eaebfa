# Run by CTest: a platform library's dynamic symbol table defines its part of
# the sdk interface and nothing else: C names KOVA*/KLIB*, members of the
# sdk's and the administration interfaces' C++ classes, and, for the
# internal library alone (-DINTERNAL=ON), the kova_internal toolkit.
# Arguments: -DNM=<nm> -DLIBRARY=<file> [-DINTERNAL=ON].
execute_process(COMMAND ${NM} -DC --defined-only ${LIBRARY}
  OUTPUT_VARIABLE listing RESULT_VARIABLE status ERROR_VARIABLE errors)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}: ${errors}")
endif()
set(allowed "^(KOVA|KLIB)[A-Za-z0-9_]*$|^(KOVA|PanoraFileShare|StringBundle|ParameterChecker|KovaDirsvc|KovaAccountCache[A-Za-z]*)::|^kova_acl::(VerifyTree|ListPropagations|ResumePropagations|StopPropagation|JobStateName|PropagationRunnerAlive)\\(")
if(INTERNAL)
  string(APPEND allowed "|^kova_internal::")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${listing}")
set(stray "")
set(count 0)
foreach(line IN LISTS lines)
  # "<address> <type> <demangled name, spaces and all>"
  string(REGEX REPLACE "^[0-9a-fA-F]* [A-Za-z] " "" name "${line}")
  math(EXPR count "${count} + 1")
  if(NOT name MATCHES "${allowed}")
    string(APPEND stray "  ${name}\n")
  endif()
endforeach()
if(count EQUAL 0)
  message(FATAL_ERROR "${LIBRARY} exports nothing")
endif()
if(NOT stray STREQUAL "")
  message(FATAL_ERROR "${LIBRARY} exports names outside its interface:\n${stray}")
endif()
message(STATUS "${LIBRARY}: ${count} exported names, all of its interface")
