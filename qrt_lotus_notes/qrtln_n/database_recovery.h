// Taking single databases from the server and giving them back to it, and the replay of the
// transaction logs over restored copies.
#pragma once

#include "qrt_lotus_notes/operation_state.h"

// Stands between the two paths of an entry of the recovery list: the restored copy and the original
// whose place it is to take. Equal paths: the database is recovered where it lies.
inline constexpr char kRecoverySeparator[] = "[?]";

// Takes the originals offline, has the server replay the logs over the restored copies, copies each
// over its original, deletes it and brings the original online. Originals that cannot be taken
// offline are excluded, and their entries leave the list. 3000, or 1000 when the replay or a copy
// failed or nothing was left to recover.
int RecoverDb(LIST_INFO* _lhRecoveryList);

// By which the server asks for each log that it needs: 0 when the log exists at cpPath, else 1. The
// module brings no log there, the client has restored them before.
STATUS LogRestoreCallBack(UNIVERSALNOTEID* LogId, DWORD dwLogNumber, char* cpPath);

// Takes a database offline: nobody can open it until it is brought online. 3000; 13 when it is in
// use, 1000 on any other failure (both reported).
int TakeDbsOffline(const char* cpDbFile);

// Brings a database online. 3000, or 1000 (reported).
int BringDbsOnline(const char* cpDbFile);

// Brings a database that was put in its place online. 3000, or 1000 (reported).
int ActivateDb(const char* cpDbFile);
