// The recovery of databases from restored copies and the transaction logs.
#pragma once

#include "qrt_lotus_notes/operation_state.h"
// Of this unit's interface: the entries of the list, the logs that the server asks for, databases
// offline and online.
#include "qrt_lotus_notes/qrtln_n/log_replay.h"
#include "qrt_lotus_notes/qrtln_n/offline_databases.h"
#include "qrt_lotus_notes/qrtln_n/recovery_pairs.h"

// Takes the originals offline, has the server replay the logs over the restored copies, copies each
// over its original, deletes it and brings the original online. Originals that cannot be taken
// offline are excluded, and their entries leave the list. 3000, or 1000 when the replay or a copy
// failed or nothing was left to recover.
int RecoverDb(LIST_INFO* _lhRecoveryList);
