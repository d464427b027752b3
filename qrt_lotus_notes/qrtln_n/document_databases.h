// Both databases of one document restore: the live one (the original) and its restored copy (the
// backup), from which documents are copied back. Nothing is rolled back: what was copied stays so.
#pragma once

#include "qrt_lotus_notes/operation_state.h"
#include "qrt_lotus_notes/qrtln_n/guards.h"

// What the two kinds of restore say differently.
struct DocumentRestoreTexts {
    const char* szFunction; // whose name stands before a message
    const char* szChange;   // what is looked for in the original
};

inline constexpr DocumentRestoreTexts kDeletedTexts = {"RestoreDeletedDocuments",
                                                       "changed (deleted)"};
inline constexpr DocumentRestoreTexts kChangedTexts = {"RestoreChangedDocuments", "changed"};

// One restore. The three texts are the caller's and outlive it.
struct DocumentRestore {
    const DocumentRestoreTexts& texts;
    const char* cpOriginalDb;
    const char* cpBackupDb;
    const char* cpChangedSinceDate; // "MM/DD/YYYY hh:mm", local time
    // Set by openDocumentDatabases. The original is closed first.
    DatabaseGuard backup{};
    DatabaseGuard original{};
    DBID BackupDbDbId = {};
    DBID OriginalDbDbId = {};
    TIMEDATE tdStartTime = {};
};

// Opens both databases, and learns their identities and the time to go back to. False when their
// file names differ (traced) or a call failed (reported); what is open then is closed with the
// record. REQUIRES: the runtime is up.
bool openDocumentDatabases(DocumentRestore& restore);

// Lists the documents that changed in the original since then, the deleted ones among them. 3000
// with a table; 3001 when there are none, else 1000 (reported). REQUIRES: both are open.
int listChangesOfOriginal(const DocumentRestore& restore, IdTableGuard& table);

// Lists every document of the backup. Answers as listChangesOfOriginal. REQUIRES: both are open.
int listBackup(DocumentRestore& restore, IdTableGuard& table);

// Copies a document of the backup into the original, which must not have its id. False: reported.
// REQUIRES: both are open.
bool copyToOriginal(DocumentRestore& restore, NOTEID id);

// Closes both, the original first. 3000, or 1000 when one of the closes failed (reported).
int closeDocumentDatabases(DocumentRestore& restore);
