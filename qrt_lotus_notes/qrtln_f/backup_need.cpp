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

// getUTF8FileName in a buffer of its own: the callers pass it to functions that name files too.
struct Utf8Name {
    explicit Utf8Name(const char* cpFile) { copyText(szName, getUTF8FileName(cpFile)); }
    char szName[kPathSize];
};

Utf8Name utf8BaseName(const char* cpFile) {
    char szBase[kPathSize];
    getFileName(cpFile, szBase);
    return Utf8Name(szBase);
}

// The decision for a database that is logged archive-style.
BOOL isNeededByDbIId(const char* cpFile, DB_OPERATION_LEVEL level, const UNIVERSALNOTEID& DbIID) {
    if (isBackupNeeded(cpFile, kSpanNeverBackedUp)) {
        DB_LogExt("QRTLN_IsBackupNeeded: The database %s has not been backed up on this "
                  "server/instance of the log.",
                  utf8BaseName(cpFile).szName);
        return TRUE; // and the index stays as it is
    }
    char szDbIId[kDbIIdTextSize];
    formatDbIId(DbIID, szDbIId);
    const Utf8Name path(cpFile);
    BOOL bNeeded = FALSE;
    if (level == DB_LEVEL_FULL) {
        bNeeded = TRUE;
    } else {
        // No entry selects nothing: such a database is left to the question above.
        const char* cpStored = storedDbIId(path.szName);
        if (cpStored != nullptr && std::strcmp(cpStored, szDbIId) != 0) {
            DB_LogExt("QRTLN_IsBackupNeeded: DBIID of %s has changed from [%s] to [%s]",
                      utf8BaseName(cpFile).szName, cpStored, szDbIId);
            bNeeded = TRUE;
        }
    }
    if (!bNeeded) {
        DB_TraceExt("QRTLN_IsBackupNeeded(): Database is being archive style logged, backup is NOT "
                    "NEEDED");
        return FALSE;
    }
    DB_LogExt("QRTLN_IsBackupNeeded: Update index file %s", workingCopyPath());
    storeDbIId(path.szName, szDbIId);
    return TRUE;
}

} // namespace

int QRTLN_IsBackupNeeded(const char* cpFile, DB_OPERATION_LEVEL eI_OperationLevel, BOOL* bpBackup) {
    *bpBackup = FALSE;
    const bool bDatabase = isFileNotesNSF(cpFile) != 0;
    if (bDatabase) {
        const BOOL bAttribute = OSIsArchiveAttributeSet(cpFile);
        BOOL bLogged = FALSE;
        DB_LOGGING_STYLE e_LoggingStyle = DB_LOGGING_STYLE_NOLOG;
        UNIVERSALNOTEID DbIID{};
        if (isDatabaseLogged(cpFile, &bLogged, &e_LoggingStyle, &DbIID) != DB_NUM_I_OK) {
            DB_TraceExt("Checking database %s logging failed. Skip backup of this file ...",
                        Utf8Name(cpFile).szName);
            return DB_NUM_E_FAILED;
        }
        // The probe must leave no mark on the file.
        if (!bAttribute && OSIsArchiveAttributeSet(cpFile)) {
            OSResetArchiveAttribute(cpFile);
        }
        if (!bLogged) {
            DB_TraceExt("The database is not being logged");
        } else if (e_LoggingStyle == DB_LOGGING_STYLE_ARCH) {
            *bpBackup = isNeededByDbIId(cpFile, eI_OperationLevel, DbIID);
        } else if (e_LoggingStyle == DB_LOGGING_STYLE_CIRC && eI_OperationLevel == DB_LEVEL_DIFF) {
            DB_TraceExt("QRTLN_IsBackupNeeded(): Differential: Check CIRCULAR logged database");
            *bpBackup = isBackupNeeded(cpFile, kSpanOfLog);
        }
    }
    if (*bpBackup || eI_OperationLevel != DB_LEVEL_DIFF) {
        return DB_NUM_I_OK;
    }
    // Differential, not selected yet: by the file's times and, for a database, by its notes.
    *bpBackup = isFileNewer(cpFile, g_sQRTLN_Global.tSinceTime) ? TRUE : FALSE;
    if (*bpBackup && bDatabase) {
        *bpBackup = isNotesDbModified(cpFile, g_sQRTLN_Global.tSinceTime);
    }
    return DB_NUM_I_OK;
}

int QRTLN_PrepareForBackup(char* cpFile, char* cpBackupDirectory, BOOL* bpFileOpen) {
    if (!isFileNotesNSF(cpFile)) {
        if (const char* delimiter = std::strrchr(cpFile, kDelimiter)) {
            copyText(cpBackupDirectory, kPathSize, cpFile);
            cpBackupDirectory[delimiter - cpFile] = '\0';
        }
        return DB_NUM_I_OK;
    }
    // Every database is handled as open: asking costs a lock on a file that the server may want.
    // The other branch stays for databases that are known to be closed.
    const BOOL bDatabaseIsOpen = TRUE;
    UNIVERSALNOTEID DbIID{};
    int result = DB_NUM_E_FAILED;
    if (bDatabaseIsOpen) {
        *bpFileOpen = TRUE;
        result = PrepareOpenDbForBackup(cpFile, cpBackupDirectory, &DbIID);
    } else {
        *bpFileOpen = FALSE;
        result = PrepareDbForBackup(cpFile, cpBackupDirectory, &DbIID);
    }
    if (result == DB_NUM_I_OK) {
        char szDbIId[kDbIIdTextSize];
        formatDbIId(DbIID, szDbIId);
        DB_TraceExt("QRTLN_PrepareForBackup: got database [%s], DBIID [%s])",
                    Utf8Name(cpFile).szName, szDbIId);
    } else if (result == DB_NUM_W_WARNING) {
        if (g_sQRTLN_Global.eI_OperationLevel == DB_LEVEL_COPY) {
            result = DB_NUM_I_OK;
        } else {
            char szBase[kPathSize];
            getFileName(cpFile, szBase);
            for (const char* cpNeverLogged : kNeverLogged) {
                if (std::strcmp(szBase, cpNeverLogged) == 0) {
                    DB_LogExt("QRTLN_PrepareForBackup: %s is never logged so return OK", szBase);
                    result = DB_NUM_I_OK;
                }
            }
        }
    }
    DB_TraceExt("QRTLN_PrepareForBackup: return %d", result);
    return result;
}

int finishBackupFile(const char* cpOriginalFile, BOOL bFileWasOpen) {
    char szCopy[kPathSize];
    const char* cpName = relativeDatabaseName(cpOriginalFile);
    if (bFileWasOpen && *g_sQRTLN_Global.szTmpDir == '\0') {
        return DB_NUM_I_OK; // no copy was made
    }
    if (cpName == nullptr || *cpName == '\0' || !buildCopyPath(cpOriginalFile, szCopy)) {
        DB_ErrHandler(0, kErrorKindNone, "finishBackupFile(): file full path [%s] is not valid.",
                      Utf8Name(cpOriginalFile).szName);
        return DB_NUM_E_FAILED;
    }
    if (!bFileWasOpen) {
        const int result = CloseDbBackup(cpOriginalFile);
        // Closed for good: whoever releases the operation must not close the handle again.
        g_sQRTLN_Global.hCurrDB = 0;
        g_sQRTLN_Global.hCurrBackupContext = 0;
        return result == DB_NUM_I_OK ? DB_NUM_I_OK : DB_NUM_E_FAILED;
    }
    // With TMP_DIR equal to the data directory this would delete the live database.
    if (isSameFile(szCopy, cpOriginalFile)) {
        DB_ErrHandler(0, kErrorKindNone,
                      "finishBackupFile(): [%s] is the database itself, not a copy: it is not "
                      "deleted. Choose a TMP_DIR outside the data directory.",
                      Utf8Name(szCopy).szName);
        return DB_NUM_E_FAILED;
    }
    if (SysFileDelete(szCopy) != 0) {
        DB_TraceExt("finishBackupFile(): Deleting of file [%s] failed", Utf8Name(szCopy).szName);
        return DB_NUM_E_FAILED;
    }
    return DB_NUM_I_OK;
}
