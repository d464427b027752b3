# Compares what a shared library exports with a list of names, one a line, sorted.
#
#   cmake -D NM=nm -D LIBRARY=libqrtln.so -D ALLOWED=allowed_symbols.txt -P check_exports.cmake
cmake_minimum_required(VERSION 3.25)
execute_process(
  COMMAND ${NM} -D --defined-only --format=posix ${LIBRARY}
  OUTPUT_VARIABLE output RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${NM} cannot read ${LIBRARY}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${output}")
set(exported "")
foreach(line IN LISTS lines)
  string(REGEX REPLACE "[ @].*" "" name "${line}") # without version, kind and address
  list(APPEND exported ${name})
endforeach()
file(STRINGS ${ALLOWED} allowed)
set(unexpected ${exported})
list(REMOVE_ITEM unexpected ${allowed})
set(missing ${allowed})
if(exported)
  list(REMOVE_ITEM missing ${exported})
endif()
if(unexpected OR missing)
  message(FATAL_ERROR
    "exported but not on the list: [${unexpected}]; on the list but not exported: [${missing}]")
endif()
