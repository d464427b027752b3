// Whether a database must be saved, its preparation, and the removal of its copy.
#pragma once

#include "qrt_lotus_notes/operation_state.h"

// Decides whether an item is saved at this level, and notes its DBIID in the working copy of the
// index. 3000 with *bpBackup set, or 1000 when its logging state cannot be read.
int QRTLN_IsBackupNeeded(const char* cpFile, DB_OPERATION_LEVEL eI_OperationLevel, BOOL* bpBackup);

// Makes an item ready to be read. cpBackupDirectory (1028 bytes) receives the directory to read it
// from, *bpFileOpen whether the database was open (untouched for other files). 3000, 2000 when a
// database is not logged, else failure.
int QRTLN_PrepareForBackup(char* cpFile, char* cpBackupDirectory, BOOL* bpFileOpen);

// Removes the copy of a database. 3000 or 1000. A path that does not lie below the data directory
// or leads out of TMP_DIR is reported and nothing is deleted; so is a copy that is the database
// itself.
int finishBackupFile(const char* cpOriginalFile, BOOL bFileWasOpen);
