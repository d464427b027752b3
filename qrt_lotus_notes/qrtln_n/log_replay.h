// The replay of the transaction logs over restored copies, and what it came to for each.
#pragma once

#include <string>
#include <vector>

#include "notes_api/notes_api.h"
#include "qrt_lotus_notes/qrtln_n/recovery_pairs.h"

// Flags of NSFRecoverDatabases.
inline constexpr DWORD kRecoverWithNewDbiid = 2;
inline constexpr DWORD kRecover = 4;

// What one replay came to. usiErrindex is the 1-based position of the database that the server
// names.
struct Replay {
    STATUS status = kNotesNoError;
    WORD usiErrindex = 0;
    std::string reason; // the server's text for the status
    std::string named;  // the original of the database that it names

    bool succeeded() const { return status == kNotesNoError; }
    // The log does not know the database: the server went on with the others.
    bool wentOn() const { return succeeded() || isStatus(status, kNotesNotBackedUp); }
};

// What the log did for a database.
enum class Reach {
    rolledForward,
    unknownToLog,
    uncertain,        // the server named none of those that its log does not know
    identityRefused,  // rolled forward, but the server gave it no new identity
    identityUncertain // likewise, or it did: it named another one
};

// Converts the moment to recover to. False (reported) when the server reads it as another one.
bool convertMoment(TIMEDATE& recoveryTime);

// One call of the server's over all pairs, told to the trace; dwFlag is one of the two above,
// recoveryTime NULL to the end of the logs. False when it failed, or a name cannot be given to the
// server (reported).
bool replayOnce(const std::vector<RecoveryPair>& pairs, DWORD dwFlag, TIMEDATE* recoveryTime,
                Replay& replay);

// Rolls the databases forward and learns for each whether the log knows it. With 5114 the server
// names one that it does not know: asked again for those behind it, it names the next. That costs
// little, as what is rolled forward needs no log any more; with new DBIIDs it would be unknown
// then, and so they come last.
bool replayForEach(const std::vector<RecoveryPair>& pairs, DWORD dwFlag, TIMEDATE* recoveryTime,
                   Replay& replay, std::vector<Reach>& reach);

// Tells of every pair that it was not recovered, after a replay that failed.
void tellFailed(const std::vector<RecoveryPair>& pairs, const Replay& replay);

// By which the server asks for each log that it needs: 0 when the log exists at cpPath, else 1. The
// module brings no log there, the client has restored them before.
STATUS LogRestoreCallBack(UNIVERSALNOTEID* LogId, DWORD dwLogNumber, char* cpPath);
