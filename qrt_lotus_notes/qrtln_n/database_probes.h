// Questions about one database, asked before it is decided whether it is backed up.
#pragma once

#include <ctime>

#include "qrt_lotus_notes/operation_state.h"

// Whether another process has a lock on the file. Returns 3000 with the answer, else 1000
// (reported). Called by nobody here: part of the unit's interface. A backup takes every database as
// open, without asking.
int isNotesDbOpen(const char* cpNotesDbFile, BOOL* bpDbIsOpen);

// TRUE when at least one note changed after cal_time; FALSE also for every failure.
BOOL isNotesDbModified(const char* cpNotesDbFile, time_t cal_time);

// Whether the database is transaction-logged, how, and its DBIID. Returns 3000, else 1000
// (reported). *ep_LoggingStyle stays unchanged for a database that is not logged.
int isDatabaseLogged(const char* cpFile, BOOL* bpLogged, DB_LOGGING_STYLE* ep_LoggingStyle,
                     UNIVERSALNOTEID* pDbIID);

// TRUE when the server says that the database needs a backup: with span 0 only when it was never
// backed up on this instance of the log. FALSE also for failures; *bpUnanswered tells them apart.
BOOL isBackupNeeded(const char* cpFile, DWORD dwComfortSpan, BOOL* bpUnanswered);
