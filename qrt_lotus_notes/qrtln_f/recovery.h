// Roll-forward of restored databases: the whole operation.
#pragma once

// Selects the databases from the database arguments, which it consumes. 3000 or 1000 (reported).
int QRTLN_InitRecovery();

// Recovers the selected databases. 3001 when it succeeded, else 1000 (reported).
int QRTLN_Recovery();
