// The steps on the server that a copy of an open database and one in place have in common. `caller`
// is the name that their messages begin with.
#pragma once

#include "notes_api/notes_api.h"
#include "qrt_lotus_notes/operation_state.h"
#include "qrt_lotus_notes/qrtln_n/guards.h"

// How many bytes of recorded changes there are.
struct ChangeInfoSize {
    DWORD low = 0;
    DWORD high = 0;
};

// Cuts a path at its last "/". REQUIRES: it has one.
void cutFileName(char* path);

// Traces the release that wrote the database, for the first database of the process.
void traceBuildVersion(const char* caller, DBHANDLE hDB, BOOL& iFirstRun);

// Starts the backup; a backup that somebody left on the database is ended, so that the next try
// finds it free. Returns the status.
STATUS startBackup(const char* caller, BackupContextGuard& context, DWORD* sizeLow,
                   DWORD* sizeHigh);

// Asks how the database is logged, says it and writes the identity of a logged one to *pDbIID. A
// template need not be logged and counts as if it were. Not to know it (`sayUnknown` tells why) is
// no reason not to save the database: it counts as not logged.
bool decideLogging(const char* caller, DBHANDLE hDB, const char* file, UNIVERSALNOTEID* pDbIID,
                   void (*sayUnknown)(const char* reason));

// Ends the recording of changes and asks for their size. A backup whose recording did not end has
// no defined state: the failure of either call fails the preparation. Returns the first failure.
STATUS stopRecording(const char* caller, DBHANDLE hDB, DHANDLE hBackupContext,
                     ChangeInfoSize& size);

// Applies the recorded changes to the file of that LMBCS path. Returns the first failure. What
// ending it answers is not a failure of the interface, but may mean that the copy is not whole:
// hosts find the log line and do not count the item as saved.
STATUS applyRecordedChanges(const char* caller, DBHANDLE hDB, DHANDLE hBackupContext,
                            ApplyContextGuard& apply, char* lmbcsPath, const ChangeInfoSize& size,
                            BYTE* buffer);

// Allocates and locks the working buffer; traces or logs and reports the step that failed.
bool allocateBuffer(BufferGuard& buffer, void (*say)(const char* step));
