// The Notes runtime inside the host process.
#pragma once

#include "notes_api/notes_api.h"
#include "qrt_lotus_notes/operation_state.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

// Whether the table of functions is filled. It stays so when the runtime has been shut down: ending
// an archiving session is allowed then.
inline bool isNotesApiLoaded() {
    return notes_api.NotesInitExtended.address() != nullptr;
}

// Records that the runtime is not up.
inline void reportRuntimeNotInitialized() {
    DB_ErrHandler(0, kErrorKindNone, "%s", kRuntimeNotInitialized);
}

// Loads the Notes C API at the first start and initialises the runtime. Returns 3000 with
// bNotesInitialized set, else 1000 (reported; environment help goes to standard error).
int startNotesOperation();

// Shuts the runtime down. Returns 3000, or 1000 when it was not up.
int terminateNotesOperation();

// Fills the data and program directories, each buffer 1028 bytes. Returns 3000, else 1000
// (reported).
int getNotesDirectories(char* cpNotesDataDirectory, char* cpNotesBinDirectory, int iBinDirLength);

// Returns the text of a Notes status in a static buffer of 1512 bytes that the next call
// overwrites. With bLog it is logged too.
char* getLotusNotesApiError(int apiError, BOOL bLog);
