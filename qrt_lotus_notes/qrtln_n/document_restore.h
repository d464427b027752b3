// Single documents from a restored copy of a database back into the live one.
#pragma once

// Copies back what was deleted since the point in time. 3000 or 1000 (reported).
int DeletedDocumentsRecovery(const char* cpBackupDb, const char* cpOriginalDb);

// Copies back the listed documents that changed since the point in time. 3000 or 1000 (reported).
int ChangedDocumentsRecovery(const char* cpBackupDb, const char* cpOriginalDb);
