// The consistent copy of one database, by the server's backup protocol.
#pragma once

#include "qrt_lotus_notes/operation_state.h"

// Copies the database under TMP_DIR and applies what the server changed meanwhile.
// cpBackupDirectory (1028 bytes) receives the directory of the copy, pDbIID the identity of a
// logged database, else zero. Returns 3000; 2000 when the database is not logged; 1000 (reported,
// everything undone).
int PrepareOpenDbForBackup(const char* cpOriginalFile, char* cpBackupDirectory,
                           UNIVERSALNOTEID* pDbIID);

// Applies the recorded changes to the database itself and leaves it and its backup context open in
// the global record, until CloseDbBackup. cpBackupDirectory receives its directory. Returns as
// above; 3000 also for a file that is no database. Called for a database that is known to be
// closed, which today is none: part of the unit's interface.
int PrepareDbForBackup(const char* cpOriginalFile, char* cpBackupDirectory,
                       UNIVERSALNOTEID* pDbIID);

// Ends what PrepareDbForBackup left open, if anything: nothing here, see above. Returns 3000.
int CloseDbBackup(const char* cpFile);
