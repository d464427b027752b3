# Checks the includes of the module's sources against its floors: a file uses only what lies on its
# own floor or below, never the client or the simulator, and no headers include each other in a
# circle. Every failure is printed.
#
#   cmake -D ROOT=... -P check_floors.cmake
cmake_minimum_required(VERSION 3.25)

# The floor of each file or folder, the longest match counts. Types and records that every floor
# names lie at the bottom.
set(floors
  "common/=0"
  "notes_api/types.h=0"
  "qrt_lotus_notes/db_interface.h=0"
  "qrt_lotus_notes/operation_state=1"
  "qrt_lotus_notes/syserrtxt=1"
  "qrt_lotus_notes/qrtln_u/messages=1"
  "notes_api/=2"
  "qrt_lotus_notes/qrtln_n/file_name_text=2"
  "qrt_lotus_notes/qrtln_o/=3"
  "qrt_lotus_notes/qrtln_l/=4"
  "qrt_lotus_notes/qrtln_u/=5"
  "qrt_lotus_notes/qrtln_n/=6"
  "qrt_lotus_notes/qrtln_f/=7"
  "qrt_lotus_notes/qrtln/=8")
# Written at build time, beside the sources that include them.
set(generated "qrt_lotus_notes/qrtln/build_identification.h")

function(floor_of path result)
  set(best 0)
  set(floor "")
  foreach(entry IN LISTS floors)
    string(REGEX MATCH "^(.*)=([0-9]+)$" unused "${entry}")
    set(prefix "${CMAKE_MATCH_1}")
    set(number "${CMAKE_MATCH_2}")
    string(FIND "${path}" "${prefix}" position)
    string(LENGTH "${prefix}" length)
    if(position EQUAL 0 AND length GREATER best)
      set(best ${length})
      set(floor ${number})
    endif()
  endforeach()
  set(${result} "${floor}" PARENT_SCOPE)
endfunction()

set(faults 0)
macro(fault text)
  math(EXPR faults "${faults} + 1")
  message("${text}")
endmacro()

file(GLOB_RECURSE files RELATIVE ${ROOT}
  ${ROOT}/common/*.h ${ROOT}/common/*.cpp ${ROOT}/notes_api/*.h ${ROOT}/notes_api/*.cpp
  ${ROOT}/qrt_lotus_notes/*.h ${ROOT}/qrt_lotus_notes/*.cpp)
if(NOT files)
  message(FATAL_ERROR "no sources below ${ROOT}")
endif()
set(headers "")
foreach(file IN LISTS files)
  floor_of(${file} floor)
  if(floor STREQUAL "")
    fault("${file} lies on no floor")
    continue()
  endif()
  file(STRINGS ${ROOT}/${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  set(included "")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^[^\"]*\"([^\"]*)\".*" "\\1" target "${line}")
    if(target IN_LIST generated)
      continue()
    endif()
    floor_of(${target} target_floor)
    if(target_floor STREQUAL "" OR NOT EXISTS ${ROOT}/${target})
      fault("${file} includes \"${target}\", which is no part of the module")
    elseif(target_floor GREATER floor)
      fault("${file} (floor ${floor}) includes ${target} (floor ${target_floor}) above it")
    endif()
    list(APPEND included ${target})
  endforeach()
  if(file MATCHES "\\.h$")
    list(APPEND headers ${file})
    set(includes_of_${file} ${included})
  endif()
endforeach()

# Headers that include no remaining header go; what is left when none goes includes in a circle.
set(changed TRUE)
while(changed)
  set(changed FALSE)
  foreach(header IN LISTS headers)
    set(blocked FALSE)
    foreach(target IN LISTS includes_of_${header})
      if(target IN_LIST headers)
        set(blocked TRUE)
        break()
      endif()
    endforeach()
    if(NOT blocked)
      list(REMOVE_ITEM headers ${header})
      set(changed TRUE)
    endif()
  endforeach()
endwhile()
if(headers)
  fault("these headers include each other in a circle, or one that does: ${headers}")
endif()
if(faults)
  message(FATAL_ERROR "${faults} faults in the floors")
endif()
