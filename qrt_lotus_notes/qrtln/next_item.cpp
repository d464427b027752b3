#include "qrt_lotus_notes/qrtln/next_item.h"

#include <cstring>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_f/backup_need.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_n/log_archiving.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

// The transaction log control file, handed out after the last log.
constexpr char kLogControlFile[] = "nlogctrl.lfh";

int pullItem(char* cpName, DB_BACKUP_FILE_TYPE* ep_BackupFileType) {
    unsigned int uiSize = 0;
    return PullFIFOItemLN(g_sQRTLN_Global.lhNotesFileList, cpName, &uiSize, ep_BackupFileType);
}

// The next item of a full or copy backup: every queued item is saved.
int nextOfAll(char* cpFileName, s_CurrentItem& item) {
    if (!pullItem(cpFileName, &item.e_CurrentBackupFileType)) {
        return DB_NUM_I_COMPLETE;
    }
    if (g_sQRTLN_Global.eI_OperationLevel == DB_LEVEL_FULL) {
        DB_TraceExt("DB_GetItem(): check pulled file %s.", getUTF8FileName(cpFileName));
        // Asked for its entry in the index; the answer selects nothing.
        BOOL bBackup = FALSE;
        if (QRTLN_IsBackupNeeded(cpFileName, DB_LEVEL_FULL, &bBackup) != DB_NUM_I_OK) {
            DB_LogExt("Checking if file needs to be backed up failure: %s",
                      getUTF8FileName(cpFileName));
        }
    } else {
        DB_TraceExt("DB_GetItem(): return pulled file %s.", getUTF8FileName(cpFileName));
    }
    return DB_NUM_I_OK;
}

// The next item of a differential or incremental backup that must be saved.
int nextNeeded(char* cpFileName, s_CurrentItem& item) {
    const DB_OPERATION_LEVEL level = g_sQRTLN_Global.eI_OperationLevel;
    char szName[kPathSize];
    while (pullItem(szName, &item.e_CurrentBackupFileType)) {
        BOOL bBackup = FALSE;
        if (QRTLN_IsBackupNeeded(szName, level, &bBackup) != DB_NUM_I_OK) {
            DB_LogExt("Checking if file needs to be backed up failure: %s",
                      getUTF8FileName(szName));
        } else if (!bBackup) {
            DB_TraceExt("DB_GetItem(): Differential/Incremental call: Skip file %s bcs backup not "
                        "needed.",
                        getUTF8FileName(szName));
        } else if (std::strchr(szName, kDelimiter) != nullptr) {
            copyText(cpFileName, kPathSize, szName);
            return DB_NUM_I_OK;
        } else {
            DB_LogExt("DB_GetItem(): Error: Skip file [%s] without delimiter '%c'",
                      getUTF8FileName(szName), kDelimiter);
            DB_LogExt("Preparing backup file failure: %s", getUTF8FileName(szName));
        }
    }
    return DB_NUM_I_COMPLETE;
}

// The next item of the log phase: each log, then the log control file.
int nextLog(char* cpFileName, s_CurrentItem& item) {
    // Both live as long as the module is loaded, and so does iCounter: only the first operation of
    // a process asks for a fresh enumeration of the logs and hands out the log control file.
    static char szBackupDirectory[kPathSize];
    static bool bProcessedLogctrl = false;

    item.e_CurrentBackupFileType = DB_BACKUP_FILE_TYPE_LOG;
    const BOOL bFirstPass = iCounter == 0 ? TRUE : FALSE;
    ++iCounter;
    switch (QRTLN_GetArchiveFile(cpFileName, szBackupDirectory, bFirstPass, &item.dwLogNumber,
                                 &item.LogId, &item.bActiveLogBackup)) {
    case DB_NUM_I_OK:
        DB_TraceExt("DB_GetItem(): Returning transaction log %s.", getUTF8FileName(cpFileName));
        return DB_NUM_I_OK;
    case DB_NUM_I_COMPLETE:
        if (!bProcessedLogctrl) {
            bProcessedLogctrl = true;
            // The log functions may have filled these for the log that was not there.
            item = s_CurrentItem{};
            item.e_CurrentBackupFileType = DB_BACKUP_FILE_TYPE_SYS;
            if (!formatText(cpFileName, kPathSize, "%s%c%s", szBackupDirectory, kDelimiter,
                            kLogControlFile)) {
                // Not run by a test: open; a path that is too long, or cannot be translated.
                DB_LogExt("DB_GetItem(): the path of [%s] in [%s] is too long", kLogControlFile,
                          szBackupDirectory);
                return DB_NUM_E_FAILED;
            }
            DB_TraceExt("DB_GetItem(): Returning LOGCTRL file [%s]", getUTF8FileName(cpFileName));
            return DB_NUM_I_OK;
        }
        break;
    case DB_NUM_I_CIRCULAR_LOG:
    case DB_NUM_I_NOTRANSLOGGING:
        // An incremental backup is its logs: without any it has failed.
        if (g_sQRTLN_Global.eI_OperationLevel == DB_LEVEL_INCR) {
            // Not run by a test: the lists end the process before they return nothing.
            return DB_NUM_E_FAILED;
        }
        break;
    default:
        DB_LogExt("Getting transaction log ready to be archived fail");
        return DB_NUM_E_FAILED;
    }
    DB_TraceExt("There are no more backup files");
    return DB_NUM_I_COMPLETE;
}

} // namespace

int nextItem(char* cpFileName, s_CurrentItem& item) {
    const DB_OPERATION_LEVEL level = g_sQRTLN_Global.eI_OperationLevel;
    int result = DB_NUM_I_COMPLETE;
    if (level == DB_LEVEL_FULL || level == DB_LEVEL_COPY) {
        result = nextOfAll(cpFileName, item);
    } else if (level == DB_LEVEL_DIFF || level == DB_LEVEL_INCR) {
        result = nextNeeded(cpFileName, item);
    }
    if (result != DB_NUM_I_COMPLETE) {
        return result;
    }
    if (level == DB_LEVEL_DIFF || level == DB_LEVEL_COPY) {
        DB_TraceExt("There are no more backup files");
    } else if (g_sQRTLN_Global.bWithArchiveLogs) {
        result = nextLog(cpFileName, item);
    }
    return result;
}
