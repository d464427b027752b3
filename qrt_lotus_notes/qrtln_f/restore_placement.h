// Where a restored item is written.
#pragma once

// Starts a restore from the database arguments, which it consumes. 3000, 3001 or 1000 (reported).
int QRTLN_InitRestore();

// Rewrites the announced directory in place (1028 bytes) to the one to write to. 3000 on success.
int QRTLN_SetDirectory(char* cpDirectory);

// Rewrites the announced file in place (1028 bytes) to the path to write to. 3000 to restore it, 12
// when it is not selected, 1000 on failure.
int QRTLN_SetFile(char* cpFile, const char* cpOriginalDir);
