#include "qrt_lotus_notes/qrtln_n/database_recovery.h"

#include <algorithm>
#include <vector>

#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_n/copy_path.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "qrt_lotus_notes/qrtln_n/recovered_copies.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/roll_forward.h"

namespace {

// Takes the original of one pair from its users, if there is one. False when it cannot be had.
bool takeOriginalOffline(const RecoveryPair& pair, OfflineOriginals& offline) {
    if (pair.bInPlace) {
        return true;
    }
    const char* cpOriginal = pair.original.c_str();
    if (!SysFileExists(cpOriginal) && isMissing(cpOriginal)) {
        DB_TraceExt("RecoverDb(): Taking db offline: Could not find Database %s ...",
                    getUTF8FileName(cpOriginal));
        return true;
    }
    offline.add(pair.original); // first: should memory run out, it must not stay offline
    const int result = TakeDbsOffline(cpOriginal);
    if (result == DB_NUM_I_OK) {
        return true;
    }
    offline.release(pair.original);
    if (result == DB_NUM_E_DB_IN_USE) {
        DB_TraceExt("RecoverDb(): Please assure that database that is being restored is NOT IN "
                    "USE !!!");
    }
    DB_TraceExt("RecoverDb(): Database %s EXCLUDED from RECOVERY LIST. This database is not going "
                "to be RECOVERED.",
                getUTF8FileName(cpOriginal));
    tellNotRecovered(cpOriginal, result == DB_NUM_E_DB_IN_USE ? "the database is in use"
                                                              : "it cannot be taken offline");
    return false;
}

// Takes the originals offline and the entries of those that cannot be had from the list.
void excludeUnavailable(LIST_INFO* _lhRecoveryList, OfflineOriginals& offline) {
    std::vector<int> lhExcludeList; // positions, 1-based, in ascending order
    int position = 1;
    for (const RecoveryPair& pair : readPairs(_lhRecoveryList)) {
        if (!takeOriginalOffline(pair, offline)) {
            lhExcludeList.push_back(position);
        }
        ++position;
    }
    // In ascending order the positions are not those of the moment: after the first deletion each
    // hits an entry further on. That is how a recovery has always excluded. From the end backwards
    // they are exact.
    if (recoveryChoices().bExcludesExactly) {
        std::reverse(lhExcludeList.begin(), lhExcludeList.end());
    }
    for (const int excluded : lhExcludeList) {
        DeleteFIFOItemAt(_lhRecoveryList, excluded);
    }
}

} // namespace

int RecoverDb(LIST_INFO* _lhRecoveryList) {
    DWORD dwFlag = kRecover;
    if (g_sQRTLN_Global.bNewDbiid) {
        DB_TraceExt("RecoverDb(): Preparing Recover call with NEWDBIID setting");
        dwFlag = kRecoverWithNewDbiid;
    }
    TIMEDATE recoveryTime = {};
    if (recoveryChoices().bToMoment && !convertMoment(recoveryTime)) {
        return DB_NUM_E_FAILED;
    }

    OfflineOriginals offline;
    excludeUnavailable(_lhRecoveryList, offline);
    const std::vector<RecoveryPair> pairs = readPairs(_lhRecoveryList);
    if (pairs.empty()) {
        DB_TraceExt("RecoverDb(): There is NO FILES to be recovered. EXIT.");
        return DB_NUM_E_FAILED;
    }

    DB_TraceExt("RecoverDb(): STARTING RECOVERY ...");
    TIMEDATE* const until =
        recoveryChoices().bToMoment ? &recoveryTime : nullptr; // nullptr: to the end
    std::vector<Reach> reach(pairs.size(), Reach::rolledForward);
    Replay replay;
    if (recoveryChoices().bTellsOutcome ? !replayForEach(pairs, dwFlag, until, replay, reach)
                                        : !replayOnce(pairs, dwFlag, until, replay)) {
        tellFailed(pairs, replay);
        return DB_NUM_E_FAILED;
    }
    return replaceOriginals(pairs, reach, offline) ? DB_NUM_I_OK : DB_NUM_E_FAILED;
}
