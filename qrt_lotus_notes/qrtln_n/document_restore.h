// Single documents from a restored copy of a database (the backup) back into the live one (the
// original). Nothing is rolled back: what was copied or deleted before a failure stays so.
//
// REQUIRES for all: the runtime is up. Both paths are the caller's, native and full.
// The two outer functions take the backup first, the inner ones the original first.
#pragma once

#include "qrt_lotus_notes/operation_state.h"
#include "qrt_lotus_notes/qrtln_n/unread_marks.h" // of this unit's interface

// Copies back what was deleted since szPointInTime. 3000 or 1000. The backup stays.
int DeletedDocumentsRecovery(const char* cpBackupDb, const char* cpOriginalDb);

// Copies back the documents that are listed in the data directory's noteids_list.txt (one decimal
// note id a line) and changed since szPointInTime. 3000 or 1000. The backup and the list are
// deleted whatever the result, unless the list could not be read or both paths are one database.
int ChangedDocumentsRecovery(const char* cpBackupDb, const char* cpOriginalDb);

// Copies every document that the original lost since then ("MM/DD/YYYY hh:mm") from the backup and
// marks it unread for the user under whom the module runs. 3000, also when there was nothing to do,
// or 1000: different file names (traced only), a failed call (reported).
int RestoreDeletedDocuments(const char* cpOriginalDb, const char* cpBackupDb,
                            const char* cpChangedSinceDate);

// Replaces every document that changed in the original since then and whose id, as decimal text, is
// in lhInputNoteIds (not changed) by the backup's. Results as above.
int RestoreChangedDocuments(const char* cpOriginalDb, const char* cpBackupDb,
                            LIST_INFO* lhInputNoteIds, const char* cpChangedSinceDate);
