// Where a restored item is written. A database never goes straight over a live one: it is placed
// under TMP_DIR, at its path below the data directory, and activated or recovered from there.
#pragma once

// Starts a restore from the database arguments, which it consumes: sets eI_BackupType and queues
// the names to restore (none for the whole system). 3000, or 1000 (reported).
int QRTLN_InitRestore();

// Rewrites the announced directory in place (1028 bytes) to the one to write to. 3000; 1000
// (reported, the directory unchanged) when there is no such directory: its path would not fit, it
// leads upwards, or there is no TMP_DIR.
int QRTLN_SetDirectory(char* cpDirectory);

// Rewrites the announced file in place (1028 bytes) to the path to write to and creates the
// directory that a database is placed in. cpOriginalDir is the directory announced last. 3000 to
// restore it, 12 when it is not selected, 1000 on failure (reported).
int QRTLN_SetFile(char* cpFile, const char* cpOriginalDir);
