// Roll-forward of restored databases: the whole operation.
//
// By itself a recovery selects nothing: the search of the whole system has no patterns, and the
// search for restored copies lists none. Clients of old get just that. The control variable
// ROLLFORWARD makes the choices (g_sQRTLN_Global.sRecoveryChoices) with which one recovers.
#pragma once

#include "qrt_lotus_notes/operation_state.h"

// Selects the databases from the database arguments, which it consumes, into the item queue. 3000
// or 1000 (reported).
int QRTLN_InitRecovery();

// Recovers the selected databases. 3001 when it succeeded, else 1000.
int QRTLN_Recovery();

// Walks the restored copies below a directory, and adds them to the list where the choices say so.
// 3000.
int QRTLN_GetRecoveryPendingFiles(LIST_INFO* lhRecoveryPendingList, const char* cpRootDirectory);
