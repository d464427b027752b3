// The directories below one, and the databases in one.
#pragma once

#include "qrt_lotus_notes/operation_state.h"

// Appends the sub-directories of the directory part of cpFullPattern (of cpITEM_PATH when it has
// none). A symbolic link to one of its own ancestors is left out. 3000, or 1000 when the directory
// cannot be opened. What cannot be read is logged in any case; bReport: log also such a link, and
// one whose path is too long. A second pass over the same directories does neither.
int collectSubDirectories(const char* cpFullPattern, const char* cpITEM_PATH,
                          LIST_INFO* _lhSubDirList, bool bReport);

// The same with bReport.
int getSubDirectories(const char* cpFullPattern, const char* cpITEM_PATH, LIST_INFO* _lhSubDirList);

// Appends the databases that lie in a directory, as restores know databases. What cannot be read is
// logged.
void getDatabasesIn(const char* cpDirectory, LIST_INFO* _lhDatabases);
