// From directories and patterns to the item queue.
#pragma once

#include <string>

#include "qrt_lotus_notes/operation_state.h"
#include "qrt_lotus_notes/qrtln_f/sub_directories.h" // of this unit's interface

// Queues every Domino file under a directory (or matching a pattern). 3000 when the queue holds at
// least one entry, else 1000 (reported).
int getNotesFileList(const char* cpDirectoryPattern, DB_OPERATION_LEVEL e_OperationLevel);

// Queues every file that the patterns name. 3000 or 1000.
int getParticularFileList(LIST_INFO* _lhListIncludePatterns);

// Scans each entry of hFilePatterns (consumed) and queues the files found that match an entry of
// hMatchPatterns (not changed; NULL: all, empty: none), each directory ahead of its first file.
// Returns 3000 in every case. A file whose path does not fit a path buffer is left out with a log
// line, and so is a directory that cannot be read.
int fillFileList(LIST_INFO* hFilePatterns, LIST_INFO* hMatchPatterns);

// The name of an item that is not searched for but given, as a relocated restore rewrites it.
std::string relocatedName(const char* cpItem);

// TRUE if a directory entry matches the pattern or, for a restore, also when none does.
BOOL IsValidPattern(const char* cpPattern);
