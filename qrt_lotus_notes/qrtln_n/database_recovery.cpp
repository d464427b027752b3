#include "qrt_lotus_notes/qrtln_n/database_recovery.h"

#include <algorithm>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_n/copy_path.h"
#include "qrt_lotus_notes/qrtln_n/durable_copy.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "qrt_lotus_notes/qrtln_n/notes_time.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/roll_forward.h"

namespace {

// NSFTakeDatabaseOffline does not wait for users to leave, and does not delete the database.
constexpr DWORD kNoWait = 0;
constexpr DWORD kNoOptions = 0;
// Flags of NSFRecoverDatabases.
constexpr DWORD kRecoverWithNewDbiid = 2;
constexpr DWORD kRecover = 4;

const RecoveryChoices& choices() {
    return g_sQRTLN_Global.sRecoveryChoices;
}

// An entry of the recovery list.
struct RecoveryPair {
    std::string restored;
    std::string original;
    bool bInPlace; // one file, by whatever spelling: it must be neither copied nor deleted
};

bool splitEntry(const char* cpEntry, RecoveryPair& pair) {
    const char* separator = std::strstr(cpEntry, kRecoverySeparator);
    if (separator == nullptr) {
        // Not run by a test: the caller has refused such a path, or built it so that it fits.
        return false;
    }
    pair.restored.assign(cpEntry, separator);
    pair.original = separator + sizeof kRecoverySeparator - 1;
    pair.bInPlace =
        pair.restored == pair.original || isSameFile(pair.restored.c_str(), pair.original.c_str());
    return true;
}

std::vector<RecoveryPair> readPairs(LIST_INFO* _lhRecoveryList) {
    std::vector<RecoveryPair> pairs;
    char szEntry[kPathSize];
    unsigned int uiSize = 0;
    while (ListFIFOItem(_lhRecoveryList, szEntry, &uiSize)) {
        RecoveryPair pair;
        if (splitEntry(szEntry, pair)) {
            pairs.push_back(pair);
        }
    }
    return pairs;
}

// The originals that were taken offline. Where the choices say so they are brought online again at
// the end of scope, but for those that the recovery itself has brought online.
class OfflineOriginals {
  public:
    OfflineOriginals() = default;
    ~OfflineOriginals() {
        if (choices().bBringsBackOnline) {
            for (const std::string& original : m_originals) {
                BringDbsOnline(original.c_str());
            }
        }
    }
    OfflineOriginals(const OfflineOriginals&) = delete;
    OfflineOriginals& operator=(const OfflineOriginals&) = delete;

    void add(const std::string& original) { m_originals.push_back(original); }
    void release(const std::string& original) {
        m_originals.erase(std::remove(m_originals.begin(), m_originals.end(), original),
                          m_originals.end());
    }

  private:
    std::vector<std::string> m_originals;
};

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
    if (choices().bExcludesExactly) {
        std::reverse(lhExcludeList.begin(), lhExcludeList.end());
    }
    for (const int excluded : lhExcludeList) {
        DeleteFIFOItemAt(_lhRecoveryList, excluded);
    }
}

// Converts the moment to recover to. False (reported) when the server reads it as another one.
bool convertMoment(TIMEDATE& recoveryTime) {
    if (!g_sQRTLN_Global.bNotesInitialized) {
        // Not run by a test: the entry point has refused already.
        reportRuntimeNotInitialized();
        return false;
    }
    if (!convertTime("RecoverDb()", dayMonthYearSettings(), choices().tMoment, recoveryTime)) {
        DB_ErrHandler(0, kErrorKindNone,
                      "RecoverDb(): the server does not take the time to recover to");
        return false;
    }
    if (!isSameMoment(recoveryTime, choices().tMoment)) {
        DB_ErrHandler(0, kErrorKindNone,
                      "RecoverDb(): the server reads the time to recover to as another moment: its "
                      "time zone is not the one of this process (TZ)");
        return false;
    }
    return true;
}

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

// One call of the server's, told to the trace. False when it failed, or a name cannot be given to
// the server (reported).
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
    if (choices().bTellsOutcome) {
        DB_ErrHandler(0, kErrorKindNone, "RecoverDb(): the recovery failed: %s",
                      replay.reason.c_str());
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

// Rolls the databases forward and learns for each whether the log knows it. With 5114 the server
// names one that it does not know: asked again for those behind it, it names the next. That costs
// little, as what is rolled forward needs no log any more; with new DBIIDs it would be unknown
// then, and so they come last.
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

// What became of the place of an original.
enum class Placing {
    done,
    untouched, // the copy failed before it reached it
    empty,     // there was no original, and the part of a copy is removed
    broken,    // it holds what the copy got to
};

// A file as it is at a moment, to be compared with what it is later.
class FileState {
  public:
    explicit FileState(const char* cpFile) : m_known(stat(cpFile, &m_status) == 0) {}
    // Whether nobody has written in between.
    bool operator==(const FileState& other) const {
        return m_known && other.m_known && m_status.st_size == other.m_status.st_size &&
               isSame(m_status.st_mtim, other.m_status.st_mtim) &&
               isSame(m_status.st_ctim, other.m_status.st_ctim);
    }

  private:
    static bool isSame(const timespec& first, const timespec& second) {
        return first.tv_sec == second.tv_sec && first.tv_nsec == second.tv_nsec;
    }

    struct stat m_status = {};
    bool m_known;
};

// What a copy that failed has left. Half a database in a lost one's place is nobody's, and would
// keep the next recovery from it.
Placing answerFailedCopy(const char* cpOriginal, bool bWasVacant, const FileState& before) {
    if (bWasVacant) {
        return SysFileDelete(cpOriginal) == 0 ? Placing::empty : Placing::broken;
    }
    return FileState(cpOriginal) == before ? Placing::untouched : Placing::broken;
}

// Copies a recovered database over its original and deletes the copy.
Placing placeCopy(const RecoveryPair& pair) {
    const bool bWasVacant = isVacant(pair.original.c_str());
    const FileState before(pair.original.c_str());
    if (choices().bCreatesDirectories) {
        char szDirectory[kPathSize];
        copyText(szDirectory, pair.original.c_str());
        if (char* delimiter = std::strrchr(szDirectory, kDelimiter); delimiter != nullptr) {
            *delimiter = '\0';
            SysFileCreateDirectory(szDirectory); // what cannot be created shows in the copy
        }
    }
    const bool bCopied = copyToDisk("RecoverDb", pair.restored.c_str(), pair.original.c_str());
    if (!bCopied) {
        DB_TraceExt("RecoverDb(): Copy of file [%s] to [%s] FAILED",
                    getUTF8FileName(pair.restored.c_str()), getUTF8FileName(pair.original.c_str()));
    }
    // Without the choice the copy goes even then: clients know it so, and have it in their store.
    if (bCopied || !choices().bKeepsUnplaced) {
        SysFileDelete(pair.restored.c_str());
    }
    if (bCopied) {
        return Placing::done;
    }
    return choices().bKeepsUnplaced ? answerFailedCopy(pair.original.c_str(), bWasVacant, before)
                                    : Placing::untouched;
}

void tellOutcome(const RecoveryPair& pair, Reach reach, Placing placing, bool bOnline) {
    const char* cpOriginal = pair.original.c_str();
    if (placing == Placing::broken) {
        tellNotRecovered(cpOriginal, "it could not be put in place; its place holds a part and "
                                     "stays offline; its restored copy, recovered, is kept");
    } else if (placing != Placing::done) {
        tellNotRecovered(cpOriginal, "it could not be put in place; its restored copy, recovered, "
                                     "is kept");
    } else if (reach == Reach::unknownToLog) {
        tellNotRecovered(cpOriginal, "the transaction log does not know it; it is in place as it "
                                     "was backed up");
    } else if (reach == Reach::identityRefused) {
        tellNotRecovered(cpOriginal, "the server gives it no new DBIID; it is in place, rolled "
                                     "forward, with its former one");
    } else if (!bOnline) {
        tellNotRecovered(cpOriginal, "it is in place, but could not be brought online");
    } else if (reach == Reach::identityUncertain) {
        tellUncertain(cpOriginal,
                      "it is in place, rolled forward, but perhaps without a new DBIID: "
                      "the server refused one to another database");
    } else if (reach == Reach::uncertain) {
        tellUncertain(cpOriginal, "it is in place, but the transaction log does not know every "
                                  "database, and the server does not name which");
    } else {
        tellRecovered(cpOriginal);
    }
}

// Puts the recovered copies in the place of their originals. Returns whether every copy succeeded.
bool replaceOriginals(const std::vector<RecoveryPair>& pairs, const std::vector<Reach>& reach,
                      OfflineOriginals& offline) {
    DB_TraceExt("RecoverDb(): STARTING REPLACING ORIGINAL DATABASES WITH RECOVERED COPIES ...");
    bool bOverallSuccess = true;
    for (std::size_t i = 0; i < pairs.size(); ++i) {
        Placing placing = Placing::done;
        if (pairs[i].bInPlace) {
            DB_TraceExt("RecoverDb(): There is no need to copy Database: %s to original place.",
                        getUTF8FileName(pairs[i].original.c_str()));
        } else {
            placing = placeCopy(pairs[i]);
            bOverallSuccess = bOverallSuccess && placing == Placing::done;
        }
        // Half a database is not for its users, and offline the next recovery can have it.
        const bool bUsable = placing == Placing::done || placing == Placing::untouched;
        const bool bOnline = bUsable && BringDbsOnline(pairs[i].original.c_str()) == DB_NUM_I_OK;
        offline.release(pairs[i].original); // one by one: the rest must not stay offline either
        tellOutcome(pairs[i], reach[i], placing, bOnline);
    }
    if (pairs.empty()) {
        // Not run by a test: the entry point has refused already.
        DB_TraceExt("RecoverDb(): There is no recovery files to be replaced with.");
    }
    DB_TraceExt("RecoverDb(): REPLACING ORIGINAL DATABASES WITH RECOVERED COPIES FINISHED !");
    return bOverallSuccess;
}

} // namespace

int RecoverDb(LIST_INFO* _lhRecoveryList) {
    DWORD dwFlag = kRecover;
    if (g_sQRTLN_Global.bNewDbiid) {
        DB_TraceExt("RecoverDb(): Preparing Recover call with NEWDBIID setting");
        dwFlag = kRecoverWithNewDbiid;
    }
    TIMEDATE recoveryTime = {};
    if (choices().bToMoment && !convertMoment(recoveryTime)) {
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
    TIMEDATE* const until = choices().bToMoment ? &recoveryTime : nullptr; // nullptr: to the end
    std::vector<Reach> reach(pairs.size(), Reach::rolledForward);
    Replay replay;
    if (choices().bTellsOutcome ? !replayForEach(pairs, dwFlag, until, replay, reach)
                                : !replayOnce(pairs, dwFlag, until, replay)) {
        tellFailed(pairs, replay);
        return DB_NUM_E_FAILED;
    }
    return replaceOriginals(pairs, reach, offline) ? DB_NUM_I_OK : DB_NUM_E_FAILED;
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

int TakeDbsOffline(const char* cpDbFile) {
    char szTmpFile[kPathSize];
    if (!translateOrReport("TakeDbsOffline", cpDbFile, szTmpFile)) {
        return DB_NUM_E_FAILED;
    }
    const STATUS status = notes_api.NSFTakeDatabaseOffline(szTmpFile, kNoWait, kNoOptions);
    if (status != kNotesNoError) {
        reportNotesError(status);
        DB_TraceExt("TakeDbsOffline(): Error taking database offline %s: %s",
                    getUTF8FileName(cpDbFile), getLotusNotesApiError(status, FALSE));
        return isStatus(status, kNotesDatabaseInUse) ? DB_NUM_E_DB_IN_USE : DB_NUM_E_FAILED;
    }
    DB_TraceExt("TakeDbsOffline(): Database %s taken offline", getUTF8FileName(cpDbFile));
    return DB_NUM_I_OK;
}

int BringDbsOnline(const char* cpDbFile) {
    char szTmpFile[kPathSize];
    if (!translateOrReport("BringDbsOnline", cpDbFile, szTmpFile)) {
        return DB_NUM_E_FAILED;
    }
    const STATUS status = notes_api.NSFBringDatabaseOnline(szTmpFile, kNoOptions);
    if (status != kNotesNoError) {
        reportNotesError(status);
        DB_TraceExt("BringDbsOnline(): Error taking database %s online: %s",
                    getUTF8FileName(cpDbFile), getLotusNotesApiError(status, FALSE));
        return DB_NUM_E_FAILED;
    }
    DB_TraceExt("BringDbsOnline(): Database %s brought online", getUTF8FileName(cpDbFile));
    return DB_NUM_I_OK;
}

int ActivateDb(const char* cpDbFile) {
    return BringDbsOnline(cpDbFile) == DB_NUM_I_OK ? DB_NUM_I_OK : DB_NUM_E_FAILED;
}
