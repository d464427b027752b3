// The control variable ROLLFORWARD: a recovery that selects, replays and tells.
#pragma once

#include "qrt_lotus_notes/operation_state.h"

// Reads a value: "YES" (to the end of the logs) or fourteen digits YYYYMMDDhhmmss, local time, that
// name a time which exists exactly once. Sets the choices and returns true; else false (reported),
// the choices untouched.
bool readRollForward(const char* value, RecoveryChoices& choices);

// Log lines of a form of their own, which clients read, and only with bTellsOutcome: what became of
// a database, and a log that the server asked for in vain. Paths are as they are, in native bytes.
void tellRecovered(const char* cpDatabase);
void tellNotRecovered(const char* cpDatabase, const char* why);
void tellUncertain(const char* cpDatabase, const char* why);
void tellMissingLog(const char* cpLog);
