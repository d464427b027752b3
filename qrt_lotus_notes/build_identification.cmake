# Writes build_identification.h: what DB_GetInfo says of the build. No date, host or path goes in, so
# the same sources give the same library. Run at every build; the file changes only with its text.
#
#   cmake -D SOURCE_DIR=... -D OUTPUT=... -D VERSION=... -D PLATFORM=... -P build_identification.cmake
cmake_minimum_required(VERSION 3.25)
set(identification "qrtln ${VERSION}")
find_program(GIT git)
if(GIT)
  execute_process(
    COMMAND ${GIT} -C ${SOURCE_DIR} describe --always --dirty --abbrev=12 --exclude=*
    OUTPUT_VARIABLE revision OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE status)
  if(status EQUAL 0 AND revision)
    string(APPEND identification ", revision ${revision}")
  endif()
endif()
string(APPEND identification ", ${PLATFORM}")
file(CONFIGURE OUTPUT ${OUTPUT} CONTENT
"// Written by build_identification.cmake.
#pragma once

inline constexpr char kBuildIdentification[] = \"${identification}\";
")
