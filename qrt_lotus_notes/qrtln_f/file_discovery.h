// From directories and patterns to the item queue.
#pragma once

#include <string>

#include "qrt_lotus_notes/operation_state.h"

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

// Appends the databases that lie in a directory, as restores know databases. What cannot be read is
// logged.
void getDatabasesIn(const char* cpDirectory, LIST_INFO* _lhDatabases);

// TRUE if a directory entry matches the pattern or, for a restore, also when none does.
BOOL IsValidPattern(const char* cpPattern);

// Appends the sub-directories of the directory part of cpFullPattern (of cpITEM_PATH when it has
// none). A symbolic link to one of its own ancestors is left out with a log line. 3000, or 1000
// when the directory cannot be opened.
int getSubDirectories(const char* cpFullPattern, const char* cpITEM_PATH, LIST_INFO* _lhSubDirList);
