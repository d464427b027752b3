#include "qrt_lotus_notes/qrtln_n/recovered_copies.h"

#include <cstring>
#include <sys/stat.h>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_n/copy_path.h"
#include "qrt_lotus_notes/qrtln_n/durable_copy.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "qrt_lotus_notes/qrtln_n/offline_databases.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/roll_forward.h"

namespace {

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
    if (recoveryChoices().bCreatesDirectories) {
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
    if (bCopied || !recoveryChoices().bKeepsUnplaced) {
        SysFileDelete(pair.restored.c_str());
    }
    if (bCopied) {
        return Placing::done;
    }
    return recoveryChoices().bKeepsUnplaced
               ? answerFailedCopy(pair.original.c_str(), bWasVacant, before)
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

} // namespace

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
