// Paths of database arguments, pattern matching, file names by extension, file times.
#pragma once

#include <ctime>

#include "qrt_lotus_notes/operation_state.h"

// Turns a DATABASE control variable (or its value) into a path or pattern in out[1028], which is
// read too: an argument already there that exists is kept. A path that would not fit is logged and
// leaves out empty. Returns 0.
int handleRelativeArguments(const char* arg, char* out);

// 1 when the path matches one of the patterns ("*" also matches "/"), or when there are none.
int ifMatchPattern(const char* path, LIST_INFO* patterns);

// 1 when the name is in the item queue; it is removed from it then.
int isDatabaseForRecovery(const char* name);

// Non-zero for a restore at incremental level (of the whole system).
int isFullIncrementalRestore();
int isIncrementalRestore();

// Writes the part after the last "/" into out[1028]; "/" for a path that ends in one.
void getFileName(const char* path, char* out);

// Writes the current local time as decimal text, two digits each (four for the year), into buffers
// of at least 12 bytes. 1, or 0 when there is no local time.
int getCurrentTime(char* day, char* month, char* year, char* hour, char* minute);

// 0 when the file was last modified and changed before t; else, also when in doubt, 1.
int isFileNewer(const char* path, time_t t);

// File kinds by extension, case-insensitive. The lists differ on purpose: discovery goes by
// isFileNotesDb (.nsf .ntf .ncf .box), the decisions by isFileNotesNSF (.nsf .ns2 .ns3 .ns4 .ntf
// .box).
int isFileNotesDb(const char* name);
int isFileNotesNSF(const char* name);
int isFileNotesNTF(const char* name);
int isFileNotesTXN(const char* name);

// Gives target's drive letter the case of source's. Called by nobody here: part of the unit's
// interface, for platforms that have drives.
void AdaptDriveLetter(char* target, const char* source);
