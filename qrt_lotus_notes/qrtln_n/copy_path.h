// Where the copy of a database lies: under TMP_DIR, at its path below the data directory.
#pragma once

#include <string_view>

#include "qrt_lotus_notes/operation_state.h"

// Whether a path has a component "..".
bool leadsUpwards(std::string_view path);

// The name of a database below the data directory: its path less the directory's length (the prefix
// itself is not compared). nullptr for a path that has no such part: no "/", shorter than the data
// directory, or leading upwards.
const char* relativeDatabaseName(const char* cpDatabase);

// Builds the path of the copy. Returns false where there is none: see above, too long, or no
// TMP_DIR: below "/" it would take the place of what is not ours.
bool buildCopyPath(const char* cpDatabase, char (&szCopy)[kPathSize]);

// Whether both names lead to one existing file. With TMP_DIR equal to the data directory the "copy"
// is the live database, which must be neither written nor deleted.
bool isSameFile(const char* cpFirst, const char* cpSecond);
