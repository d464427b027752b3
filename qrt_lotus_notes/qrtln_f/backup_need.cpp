#include "qrt_lotus_notes/qrtln_f/backup_need.h"

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_f/dbiid_index.h"
#include "qrt_lotus_notes/qrtln_n/backup_copy.h"
#include "qrt_lotus_notes/qrtln_n/copy_path.h"
#include "qrt_lotus_notes/qrtln_n/database_probes.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

// Spans of isBackupNeeded: whether the database was ever backed up on this instance of the log, and
// how much log may have passed since.
constexpr DWORD kSpanNeverBackedUp = 0;
constexpr DWORD kSpanOfLog = 0x10000;

// Databases that the server never logs.
constexpr const char* kNeverLogged[] = {"dbdirman.nsf", "events.nsf", "events4.nsf"};

const char* utf8BaseName(const char* cpFile) {
    char szBase[kPathSize];
    getFileName(cpFile, szBase);
    return getUTF8FileName(szBase);
}

// Whether the index has another instance of the database than the one that is there. No entry
// selects nothing: such a database is left to the server's answer.
bool hasOtherEntry(const char* cpFile, const char* szUtf8Path, const char* szDbIId) {
    const char* cpStored = storedDbIId(szUtf8Path);
    if (cpStored == nullptr || std::strcmp(cpStored, szDbIId) == 0) {
        return false;
    }
    DB_LogExt("QRTLN_IsBackupNeeded: DBIID of %s has changed from [%s] to [%s]",
              utf8BaseName(cpFile), cpStored, szDbIId);
    return true;
}

// The decision for a database that is logged archive-style.
BOOL isNeededByDbIId(const char* cpFile, DB_OPERATION_LEVEL level, const UNIVERSALNOTEID& DbIID,
                     BOOL* bpUnanswered) {
    if (isBackupNeeded(cpFile, kSpanNeverBackedUp, bpUnanswered)) {
        DB_LogExt("QRTLN_IsBackupNeeded: The database %s has not been backed up on this "
                  "server/instance of the log.",
                  utf8BaseName(cpFile));
        return TRUE; // and the index stays as it is
    }
    char szDbIId[kDbIIdTextSize];
    formatDbIId(DbIID, szDbIId);
    // A copy: the result is used over calls that name files too.
    char szUtf8Path[kPathSize];
    copyText(szUtf8Path, getUTF8FileName(cpFile));
    if (level != DB_LEVEL_FULL && !hasOtherEntry(cpFile, szUtf8Path, szDbIId)) {
        DB_TraceExt("QRTLN_IsBackupNeeded(): Database is being archive style logged, backup is NOT "
                    "NEEDED");
        return FALSE;
    }
    DB_LogExt("QRTLN_IsBackupNeeded: Update index file %s", workingCopyPath());
    storeDbIId(szUtf8Path, szDbIId);
    return TRUE;
}

// How a database is logged. 3000, or 1000 (traced) when the server does not say.
int probeLogging(const char* cpFile, BOOL* bpLogged, DB_LOGGING_STYLE* ep_Style,
                 UNIVERSALNOTEID* pDbIID) {
    const BOOL bAttribute = OSIsArchiveAttributeSet(cpFile);
    if (isDatabaseLogged(cpFile, bpLogged, ep_Style, pDbIID) != DB_NUM_I_OK) {
        DB_TraceExt("Checking database %s logging failed. Skip backup of this file ...",
                    getUTF8FileName(cpFile));
        return DB_NUM_E_FAILED;
    }
    // The probe must leave no mark on the file.
    if (!bAttribute && OSIsArchiveAttributeSet(cpFile)) {
        // Not run by a test: the simulator's probe sets none.
        OSResetArchiveAttribute(cpFile);
    }
    return DB_NUM_I_OK;
}

// Selects a database by the way in which it is logged. 3000, or 1000 (traced) when that is unknown.
int selectByLogging(const char* cpFile, DB_OPERATION_LEVEL level, BOOL* bpBackup,
                    BOOL* bpUnanswered) {
    BOOL bLogged = FALSE;
    DB_LOGGING_STYLE e_LoggingStyle = DB_LOGGING_STYLE_NOLOG;
    UNIVERSALNOTEID DbIID{};
    if (probeLogging(cpFile, &bLogged, &e_LoggingStyle, &DbIID) != DB_NUM_I_OK) {
        return DB_NUM_E_FAILED;
    }
    if (!bLogged) {
        DB_TraceExt("The database is not being logged");
    } else if (e_LoggingStyle == DB_LOGGING_STYLE_ARCH) {
        *bpBackup = isNeededByDbIId(cpFile, level, DbIID, bpUnanswered);
    } else if (e_LoggingStyle == DB_LOGGING_STYLE_CIRC && level == DB_LEVEL_DIFF) {
        DB_TraceExt("QRTLN_IsBackupNeeded(): Differential: Check CIRCULAR logged database");
        *bpBackup = isBackupNeeded(cpFile, kSpanOfLog, bpUnanswered);
    }
    return DB_NUM_I_OK;
}

// Whether a file changed since SNC_TIME: by its times and, for a database, by its notes.
BOOL isChangedSince(const char* cpFile, bool bDatabase, time_t tSince) {
    if (!isFileNewer(cpFile, tSince)) {
        return FALSE;
    }
    return bDatabase ? isNotesDbModified(cpFile, tSince) : TRUE;
}

// What a file that is no database is read from: its own directory.
void setOwnDirectory(const char* cpFile, char* cpBackupDirectory) {
    if (const char* delimiter = std::strrchr(cpFile, kDelimiter)) {
        copyText(cpBackupDirectory, kPathSize, cpFile);
        cpBackupDirectory[delimiter - cpFile] = '\0';
    }
}

// Copies a database. Results as the two functions that do it.
int prepareDatabase(const char* cpFile, char* cpBackupDirectory, BOOL* bpFileOpen) {
    // Every database is handled as open: asking costs a lock on a file that the server may want.
    // The other branch stays for databases that are known to be closed.
    const BOOL bDatabaseIsOpen = TRUE;
    UNIVERSALNOTEID DbIID{};
    int result = DB_NUM_E_FAILED;
    if (bDatabaseIsOpen) {
        *bpFileOpen = TRUE;
        result = PrepareOpenDbForBackup(cpFile, cpBackupDirectory, &DbIID);
    } else {
        // Not run by a test: every database is copied open.
        *bpFileOpen = FALSE;
        result = PrepareDbForBackup(cpFile, cpBackupDirectory, &DbIID);
    }
    if (result == DB_NUM_I_OK) {
        DB_TraceExt("QRTLN_PrepareForBackup: got database [%s], DBIID [%s])",
                    getUTF8FileName(cpFile), DbIIdText(DbIID).szText);
    }
    return result;
}

// The answer for a database that is ready but not logged: a warning, but where nobody expects logs.
int answerForUnlogged(const char* cpFile) {
    if (g_sQRTLN_Global.eI_OperationLevel == DB_LEVEL_COPY) {
        return DB_NUM_I_OK;
    }
    char szBase[kPathSize];
    getFileName(cpFile, szBase);
    for (const char* cpNeverLogged : kNeverLogged) {
        if (std::strcmp(szBase, cpNeverLogged) == 0) {
            DB_LogExt("QRTLN_PrepareForBackup: %s is never logged so return OK", szBase);
            return DB_NUM_I_OK;
        }
    }
    return DB_NUM_W_WARNING;
}

int reportInvalidName(const char* cpFile) {
    DB_ErrHandler(0, kErrorKindNone, "finishBackupFile(): file full path [%s] is not valid.",
                  getUTF8FileName(cpFile));
    return DB_NUM_E_FAILED;
}

// Closes what a preparation of a closed database left open.
int finishClosedFile(const char* cpOriginalFile) {
    const int result = CloseDbBackup(cpOriginalFile);
    // Closed for good: whoever releases the operation must not close the handle again.
    g_sQRTLN_Global.hCurrDB = 0;
    g_sQRTLN_Global.hCurrBackupContext = 0;
    return result == DB_NUM_I_OK ? DB_NUM_I_OK : DB_NUM_E_FAILED;
}

int deleteBackupCopy(const char* cpOriginalFile) {
    char szCopy[kPathSize];
    const char* cpName = relativeDatabaseName(cpOriginalFile);
    if (cpName == nullptr || *cpName == '\0' || !buildCopyPath(cpOriginalFile, szCopy)) {
        return reportInvalidName(cpOriginalFile);
    }
    // With TMP_DIR equal to the data directory this would delete the live database.
    if (isSameFile(szCopy, cpOriginalFile)) {
        DB_ErrHandler(0, kErrorKindNone,
                      "finishBackupFile(): [%s] is the database itself, not a copy: it is not "
                      "deleted. Choose a TMP_DIR outside the data directory.",
                      getUTF8FileName(szCopy));
        return DB_NUM_E_FAILED;
    }
    if (SysFileDelete(szCopy) != 0) {
        DB_TraceExt("finishBackupFile(): Deleting of file [%s] failed", getUTF8FileName(szCopy));
        return DB_NUM_E_FAILED;
    }
    return DB_NUM_I_OK;
}

} // namespace

int QRTLN_IsBackupNeeded(const char* cpFile, DB_OPERATION_LEVEL eI_OperationLevel, BOOL* bpBackup) {
    *bpBackup = FALSE;
    const bool bDatabase = isFileNotesNSF(cpFile) != 0;
    BOOL bUnanswered = FALSE;
    if (bDatabase &&
        selectByLogging(cpFile, eI_OperationLevel, bpBackup, &bUnanswered) != DB_NUM_I_OK) {
        return DB_NUM_E_FAILED;
    }
    if (!*bpBackup && eI_OperationLevel == DB_LEVEL_DIFF) {
        *bpBackup = isChangedSince(cpFile, bDatabase, g_sQRTLN_Global.tSinceTime);
    }
    // What is not selected is not saved, and here nobody knows whether it should be: hosts find
    // this line. A full backup saves the database all the same.
    if (bUnanswered && !*bpBackup && eI_OperationLevel != DB_LEVEL_FULL) {
        DB_LogExt("Checking if file needs to be backed up failure: %s", getUTF8FileName(cpFile));
    }
    return DB_NUM_I_OK;
}

int QRTLN_PrepareForBackup(char* cpFile, char* cpBackupDirectory, BOOL* bpFileOpen) {
    if (!isFileNotesNSF(cpFile)) {
        setOwnDirectory(cpFile, cpBackupDirectory);
        return DB_NUM_I_OK;
    }
    int result = prepareDatabase(cpFile, cpBackupDirectory, bpFileOpen);
    if (result == DB_NUM_W_WARNING) {
        result = answerForUnlogged(cpFile);
    }
    DB_TraceExt("QRTLN_PrepareForBackup: return %d", result);
    return result;
}

int finishBackupFile(const char* cpOriginalFile, BOOL bFileWasOpen) {
    if (std::strchr(cpOriginalFile, kDelimiter) == nullptr) {
        return reportInvalidName(cpOriginalFile);
    }
    // bFileWasOpen tells of the database prepared last; what is no database was never prepared.
    if (!bFileWasOpen || !isFileNotesNSF(cpOriginalFile)) {
        return finishClosedFile(cpOriginalFile);
    }
    if (*g_sQRTLN_Global.szTmpDir == '\0') {
        return DB_NUM_I_OK; // no copy was made
    }
    return deleteBackupCopy(cpOriginalFile);
}
