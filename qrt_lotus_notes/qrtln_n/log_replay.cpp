#include "qrt_lotus_notes/qrtln_n/log_replay.h"

#include <algorithm>
#include <cstring>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "qrt_lotus_notes/qrtln_n/notes_time.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/roll_forward.h"

namespace {

// The restored paths in LMBCS, each with its NUL, and one more NUL. False (reported) when one
// cannot be given to the server.
bool buildNameBlock(const std::vector<RecoveryPair>& pairs, std::string& block) {
    for (const RecoveryPair& pair : pairs) {
        char szTmpFile[kPathSize];
        if (!translateOrReport("RecoverDb", pair.restored.c_str(), szTmpFile)) {
            // Not run by a test: the caller has refused such a path, or built it so that it fits.
            return false;
        }
        block.append(szTmpFile, std::strlen(szTmpFile) + 1);
    }
    block.push_back('\0');
    return true;
}

void traceReplay(const std::vector<RecoveryPair>& pairs, Replay& replay) {
    if (replay.succeeded()) {
        DB_TraceExt("RecoverDb(): Recovery Successfully ended.");
        for (const RecoveryPair& pair : pairs) {
            DB_TraceExt("RecoverDb(): File %s recovered.", getUTF8FileName(pair.restored.c_str()));
        }
        return;
    }
    DB_TraceExt("RecoverDb(): Recovery returns error/warning.");
    if (replay.usiErrindex < 1 || replay.usiErrindex > pairs.size()) {
        return;
    }
    const RecoveryPair& pair = pairs[replay.usiErrindex - 1U];
    replay.named = pair.original;
    DB_TraceExt("RecoverDb(): Error recovering file [%s]. Reason: %s.",
                getUTF8FileName(pair.restored.c_str()), replay.reason.c_str());
    if (isStatus(replay.status, kNotesNotBackedUp)) {
        DB_TraceExt("RecoverDb(): Database has not been backed up on this server/instance of the "
                    "log.");
    }
}

// The pairs from position `first` on, without those that the log is known not to know.
std::vector<RecoveryPair> knownPairs(const std::vector<RecoveryPair>& pairs,
                                     const std::vector<Reach>& reach, std::size_t first) {
    std::vector<RecoveryPair> found;
    for (std::size_t i = first; i < pairs.size(); ++i) {
        if (reach[i] != Reach::unknownToLog) {
            found.push_back(pairs[i]);
        }
    }
    return found;
}

// Gives new identities to the databases that the log knows. Those behind one that the server
// refuses cannot be asked again: with a new identity they would be unknown.
bool giveNewIdentities(const std::vector<RecoveryPair>& pairs, DWORD dwFlag, TIMEDATE* recoveryTime,
                       Replay& replay, std::vector<Reach>& reach) {
    const std::vector<RecoveryPair> known = knownPairs(pairs, reach, 0);
    if (known.empty()) {
        return true;
    }
    if (!replayOnce(known, dwFlag, recoveryTime, replay)) {
        return false;
    }
    if (replay.succeeded()) {
        return true;
    }
    const bool bNamed = replay.usiErrindex >= 1 && replay.usiErrindex <= known.size();
    unsigned position = 0; // among those that were asked, 1-based
    for (Reach& each : reach) {
        if (each == Reach::unknownToLog) {
            continue;
        }
        ++position;
        if (bNamed && position == replay.usiErrindex) {
            each = Reach::identityRefused;
        } else if (each == Reach::rolledForward && (!bNamed || position > replay.usiErrindex)) {
            each = Reach::identityUncertain;
        }
    }
    return true;
}

} // namespace

bool convertMoment(TIMEDATE& recoveryTime) {
    if (!g_sQRTLN_Global.bNotesInitialized) {
        // Not run by a test: the entry point has refused already.
        reportRuntimeNotInitialized();
        return false;
    }
    if (!convertTime("RecoverDb()", dayMonthYearSettings(), recoveryChoices().tMoment,
                     recoveryTime)) {
        DB_ErrHandler(0, kErrorKindNone,
                      "RecoverDb(): the server does not take the time to recover to");
        return false;
    }
    if (!isSameMoment(recoveryTime, recoveryChoices().tMoment)) {
        DB_ErrHandler(0, kErrorKindNone,
                      "RecoverDb(): the server reads the time to recover to as another moment: its "
                      "time zone is not the one of this process (TZ)");
        return false;
    }
    return true;
}

bool replayOnce(const std::vector<RecoveryPair>& pairs, DWORD dwFlag, TIMEDATE* recoveryTime,
                Replay& replay) {
    replay = {};
    std::string names;
    if (!buildNameBlock(pairs, names)) {
        // Not run by a test: the caller has refused such a path, or built it so that it fits.
        return false;
    }
    replay.status = notes_api.NSFRecoverDatabases(names.data(), &LogRestoreCallBack, dwFlag,
                                                  &replay.usiErrindex, recoveryTime);
    if (!replay.succeeded()) {
        replay.reason = getLotusNotesApiError(replay.status, TRUE);
    }
    traceReplay(pairs, replay);
    return replay.wentOn();
}

bool replayForEach(const std::vector<RecoveryPair>& pairs, DWORD dwFlag, TIMEDATE* recoveryTime,
                   Replay& replay, std::vector<Reach>& reach) {
    for (std::size_t first = 0; first < pairs.size();) {
        const std::vector<RecoveryPair> asked = knownPairs(pairs, reach, first);
        if (!replayOnce(asked, kRecover, recoveryTime, replay)) {
            return false;
        }
        if (replay.succeeded()) {
            break;
        }
        if (replay.usiErrindex < 1 || replay.usiErrindex > asked.size()) {
            std::fill(reach.begin() + static_cast<std::ptrdiff_t>(first), reach.end(),
                      Reach::uncertain);
            break;
        }
        first += replay.usiErrindex;
        reach[first - 1] = Reach::unknownToLog;
    }
    if (dwFlag == kRecover) {
        return true;
    }
    return giveNewIdentities(pairs, dwFlag, recoveryTime, replay, reach);
}

void tellFailed(const std::vector<RecoveryPair>& pairs, const Replay& replay) {
    if (replay.wentOn()) {
        // Not run by a test: open; a path that is too long, or cannot be translated.
        return; // the server was not even asked, which is reported
    }
    for (const RecoveryPair& pair : pairs) {
        tellNotRecovered(pair.original.c_str(), pair.original == replay.named
                                                    ? replay.reason.c_str()
                                                    : "the recovery failed at another database");
    }
    if (recoveryChoices().bTellsOutcome) {
        DB_ErrHandler(0, kErrorKindNone, "RecoverDb(): the recovery failed: %s",
                      replay.reason.c_str());
    }
}

STATUS LogRestoreCallBack(UNIVERSALNOTEID* LogId, DWORD dwLogNumber, char* cpPath) {
    constexpr STATUS kNoSuchLog = 1;
    // A name under which logs could be kept elsewhere. Nothing reads it: the server's own path is
    // the one that counts.
    char szFilePath[kPathSize];
    formatText(szFilePath, sizeof szFilePath, "%08lx%sS%07lx.LOG",
               LogId != nullptr ? foldedId(*LogId) : 0UL, "/",
               static_cast<unsigned long>(dwLogNumber));

    const char* cpRequested = cpPath != nullptr ? cpPath : "(null)";
    DB_TraceExt("LogRestoreCallBack(): Transaction Log requested: [%s].", cpRequested);
    if (SysFileExists(cpPath)) {
        return kNotesNoError;
    }
    DB_TraceExt("LogRestoreCallBack(): Requested Transaction Log [%s] does not exist!",
                cpRequested);
    tellMissingLog(cpRequested);
    return kNoSuchLog;
}
