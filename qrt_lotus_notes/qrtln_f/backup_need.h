// Whether a database must be saved, its preparation and the removal of its copy, and the index of
// database instances (DBIIDs) that decides it from run to run.
#pragma once

#include <cstddef>

#include "qrt_lotus_notes/operation_state.h"

struct _dictionary_;

// Size of the text form of a DBIID with its NUL: "%08lX-%08lX %08lX%08lX".
inline constexpr std::size_t kDbIIdTextSize = 35;

// The DBIID dictionary of the running backup; opened by QRTLN_InitBackup, kept past the close.
extern _dictionary_* gdcDBIID;

// Decides whether an item is saved at this level, and notes its DBIID in the working copy of the
// index. 3000 with *bpBackup set, or 1000 when its logging state cannot be read.
int QRTLN_IsBackupNeeded(const char* cpFile, DB_OPERATION_LEVEL eI_OperationLevel, BOOL* bpBackup);

// Makes an item ready to be read. cpBackupDirectory (1028 bytes) receives the directory to read it
// from. 3000, 2000 when a database is not logged, else failure.
int QRTLN_PrepareForBackup(char* cpFile, char* cpBackupDirectory, BOOL* bFileOpen);

// Removes the copy of a database. 3000 or 1000.
int finishBackupFile(const char* cpOriginalFile, BOOL bFileWasOpen);

// Opens the index for a run: loads it into gdcDBIID and makes the working copy.
void openDBIIDIndex();

// Ends the run: with bOk the working copy replaces the index, so that a crash leaves the old or the
// new one whole; in every case the working copy is deleted. 3000 or 1000.
int QRTLN_EndDBIIDIndexProcessing(BOOL bOk);

// Appends "." and the process id to str, never beyond size bytes in all.
void AddPidToFilename(char* str, std::size_t size);
