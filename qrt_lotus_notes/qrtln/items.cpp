// The entry points that move items through an operation.
#include <cerrno>

#include "qrt_lotus_notes/qrtln/entry_point.h"
#include "qrt_lotus_notes/qrtln_f/activation.h"
#include "qrt_lotus_notes/qrtln_f/backup_need.h"
#include "qrt_lotus_notes/qrtln_f/restore_placement.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_n/document_restore.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_n/log_archiving.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"
#include "qrt_lotus_notes/syserrtxt.h"

s_CurrentItem* psCurrentListItem = nullptr;

namespace {

using entry_point::fail;
using entry_point::kMissingArgument;
using entry_point::requireBackup;
using entry_point::requireRuntime;
using entry_point::shown;

// The transaction log control file, handed out after the last log.
constexpr char kLogControlFile[] = "nlogctrl.lfh";
// Clients of other platforms put this before an absolute path.
constexpr char kLongPathPrefix[] = "\\\\?\\";

int pullItem(char* cpName, DB_BACKUP_FILE_TYPE* ep_BackupFileType) {
    unsigned int uiSize = 0;
    return PullFIFOItemLN(g_sQRTLN_Global.lhNotesFileList, cpName, &uiSize, ep_BackupFileType);
}

// Appends a record to a list. A failure is reported under the name that the client's readers of
// logs know.
bool appendRecord(t_LL list, const s_CurrentItem& item) {
    return list != nullptr && InsLastLLf(list, sizeof item, &item) != nullptr;
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

int getItem(const char* cpBackupDirectory, const char* cpOriginalDirectory, char* cpFileName) {
    traceBanner("DB_GetItem() call.");
    DB_TraceExt("dir [%s], original dir [%s]", shown(cpBackupDirectory),
                shown(cpOriginalDirectory));
    if (requireBackup() != DB_NUM_I_OK) {
        return DB_NUM_E_FAILED;
    }
    if (cpFileName == nullptr) {
        return fail(kMissingArgument);
    }
    const DB_OPERATION_LEVEL level = g_sQRTLN_Global.eI_OperationLevel;
    s_CurrentItem item{};
    int result = DB_NUM_I_COMPLETE;
    if (level == DB_LEVEL_FULL || level == DB_LEVEL_COPY) {
        result = nextOfAll(cpFileName, item);
    } else if (level == DB_LEVEL_DIFF || level == DB_LEVEL_INCR) {
        result = nextNeeded(cpFileName, item);
    }
    if (result == DB_NUM_I_COMPLETE) {
        if (level == DB_LEVEL_DIFF || level == DB_LEVEL_COPY) {
            DB_TraceExt("There are no more backup files");
        } else if (g_sQRTLN_Global.bWithArchiveLogs) {
            result = nextLog(cpFileName, item);
        }
    }
    if (result == DB_NUM_I_OK) {
        copyText(item.szCurrentListItem, cpFileName);
        DB_TraceExt("DB_GetItem(): Push %s", getUTF8FileName(cpFileName));
        if (!appendRecord(g_sQRTLN_Global.LL_CurrentItemList, item)) {
            // Not run by a test: the lists end the process before they return nothing.
            const int error = errno;
            DB_LogExt("DB_GetItem: InsLastLL returned malloc error (%d): %s", error,
                      getSysMsg(static_cast<unsigned int>(error)));
            DB_ErrHandler(static_cast<unsigned long>(error), kErrorKindErrno, "malloc failed");
            return DB_NUM_E_FAILED;
        }
    }
    DB_TraceExt("DB_GetItem(): return %d", result);
    return result;
}

// A transaction log is read where it lies: the path is only taken apart and put together again.
int prepareLog(const char* szItem, char* szNewFile) {
    DB_TraceExt("DB_PrepareItem(): Full Backup Archive Log File.");
    const char* delimiter = std::strrchr(szItem, kDelimiter);
    if (delimiter == nullptr) {
        DB_LogExt("DB_PrepareItem(): ERROR: Missing delimiter '%c' in %s.", kDelimiter,
                  getUTF8FileName(szItem));
        DB_LogExt("Preparing backup file failure: %s", getUTF8FileName(szItem));
        return DB_NUM_E_FAILED;
    }
    formatText(szNewFile, kPathSize, "%.*s%c%s", static_cast<int>(delimiter - szItem), szItem,
               kDelimiter, delimiter + 1);
    return DB_NUM_I_OK;
}

int prepareFile(char (&szName)[kPathSize], char* szNewFile) {
    DB_TraceExt("DB_PrepareItem(): %s ...preparing for backup.", getUTF8FileName(szName));
    char szDirectory[kPathSize] = "";
    const int result = QRTLN_PrepareForBackup(szName, szDirectory, &bFileOpen);
    if (result == DB_NUM_E_FAILED) {
        DB_LogExt("Preparing backup file failure: %s", getUTF8FileName(szName));
    } else if (result == DB_NUM_W_WARNING) {
        DB_TraceExt("Warning: Database %s not logged", getUTF8FileName(szName));
    }
    *szNewFile = '\0';
    if (result != DB_NUM_I_OK && result != DB_NUM_W_WARNING) {
        DB_LogExt("DB_PrepareItem(): [%s] Err %d -> return DB_NUM_E_ITEM_FAILED",
                  getUTF8FileName(szName), result);
        return DB_NUM_E_ITEM_FAILED;
    }
    const char* delimiter = std::strrchr(szName, kDelimiter);
    if (delimiter == nullptr) {
        return result == DB_NUM_I_OK ? DB_NUM_I_OK : DB_NUM_E_FAILED;
    }
    if (!formatText(szNewFile, kPathSize, "%s%c%s", szDirectory, kDelimiter, delimiter + 1)) {
        // Not run by a test: the caller has refused such a path, or built it so that it fits.
        *szNewFile = '\0'; // a path that was cut is another file's
        DB_LogExt("DB_PrepareItem(): the path of [%s] in [%s] is too long", delimiter + 1,
                  szDirectory);
        return DB_NUM_E_ITEM_FAILED;
    }
    DB_TraceExt("DB_PrepareItem(): backup directory [%s]", getUTF8FileName(szDirectory));
    *std::strrchr(szName, kDelimiter) = '\0';
    DB_TraceExt("DB_PrepareItem(): original directory [%s]", getUTF8FileName(szName));
    return result;
}

int prepareItem(const char* szItem, char* szNewFile) {
    traceBanner("DB_PrepareItem() %s.", shown(szItem));
    if (requireBackup() != DB_NUM_I_OK) {
        return DB_NUM_E_FAILED;
    }
    if (szItem == nullptr || szNewFile == nullptr) {
        return fail(kMissingArgument);
    }
    char szName[kPathSize];
    if (!copyText(szName, szItem)) {
        DB_ErrHandler(0, kErrorKindNone, "DB_PrepareItem(): the item's path is longer than %zu",
                      kPathSize - 1);
        return DB_NUM_E_ITEM_FAILED;
    }
    return isFileNotesTXN(szName) ? prepareLog(szName, szNewFile) : prepareFile(szName, szNewFile);
}

int setDirectory(char (&szName)[kPathSize]) {
    DB_TraceExt("DB_SetItem(): Processing DIRECTORY item: [%s]", getUTF8FileName(szName));
    copyText(szCurrentOriginalDirectory, szName);
    if (QRTLN_SetDirectory(szName) != DB_NUM_I_OK) {
        DB_LogExt("DB_SetItem(); Setting restore directory [%s] failed", getUTF8FileName(szName));
        return DB_NUM_E_FAILED;
    }
    DB_TraceExt("DB_SetItem(); Successfully ended.");
    return DB_NUM_I_OK;
}

int setFile(char (&szName)[kPathSize]) {
    DB_TraceExt("DB_SetItem(): Processing FILE item: [%s]", getUTF8FileName(szName));
    const int result = QRTLN_SetFile(szName, szCurrentOriginalDirectory);
    DB_TraceExt("DB_SetItem(): QRTLN_SetFile returned item: %s", getUTF8FileName(szName));
    switch (result) {
    case DB_NUM_E_FAILED:
        DB_LogExt("DB_SetItem(); QRTLN_SetFile(%s) call failed", getUTF8FileName(szName));
        return DB_NUM_E_FAILED;
    case DB_NUM_I_NOT_SELECTED:
        return DB_NUM_E_FAILED; // no message: most items of a selective restore end here
    case DB_NUM_I_OK: {
        s_CurrentItem item{};
        copyText(item.szCurrentListItem, szName);
        item.e_CurrentBackupFileType = DB_BACKUP_FILE_TYPE_DB;
        appendRecord(g_sQRTLN_Global.LL_CurrentItemList, item);
        break;
        // Not run by a test: no caller passes another value today.
    }
    default:
        break;
    }
    DB_TraceExt("DB_SetItem(): Successfully ended.");
    return DB_NUM_I_OK;
}

int setItem(DB_ITEM_TYPE e_ItemType, char* cpItem) {
    traceBanner("DB_SetItem() call.");
    if (requireRuntime() != DB_NUM_I_OK) {
        return DB_NUM_E_FAILED;
    }
    if (cpItem == nullptr) {
        return fail(kMissingArgument);
    }
    if (std::strncmp(cpItem, kLongPathPrefix, sizeof kLongPathPrefix - 1) == 0) {
        std::memmove(cpItem, cpItem + sizeof kLongPathPrefix - 1,
                     std::strlen(cpItem + sizeof kLongPathPrefix - 1) + 1);
    }
    // A recovery runs inside DB_InitOperation; nothing may be restored through it. The failure is
    // what makes the client skip the item.
    if (g_sQRTLN_Global.bRecovery) {
        DB_TraceExt("DB_SetItem(): It is recovery operation. Skipping restore ...");
        return DB_NUM_E_FAILED;
    }
    if (e_ItemType != DB_ITEM_TYPE_DIRECTORY && e_ItemType != DB_ITEM_TYPE_FILE) {
        return DB_NUM_I_OK;
    }
    // In a backup it would become an item whose finish removes copies.
    if (g_sQRTLN_Global.eI_OperationType != DB_TYPE_RST) {
        return fail(kOperationNotExpected);
    }
    char szName[kPathSize];
    if (!copyText(szName, cpItem)) {
        DB_ErrHandler(0, kErrorKindNone, "DB_SetItem(): the item's path is longer than %zu",
                      kPathSize - 1);
        return DB_NUM_E_FAILED;
    }
    const int result =
        e_ItemType == DB_ITEM_TYPE_DIRECTORY ? setDirectory(szName) : setFile(szName);
    copyText(cpItem, kPathSize, szName);
    return result;
}

// Moves the cursor to the oldest unfinished record; nullptr when there is none. The record that was
// kept as an anchor leaves the list here, so that no batch of later items meets it again.
s_CurrentItem* nextUnfinished() {
    t_LL list = g_sQRTLN_Global.LL_CurrentItemList;
    if (psCurrentListItem != nullptr) {
        void* next = NextElmLL(psCurrentListItem);
        if (!IsElmLL(next)) {
            return nullptr;
        }
        DelElmLL(psCurrentListItem);
        psCurrentListItem = static_cast<s_CurrentItem*>(next);
    } else if (list != nullptr && !IsEmptyLL(list)) {
        psCurrentListItem = static_cast<s_CurrentItem*>(FirstElmLL(list));
    }
    return psCurrentListItem;
}

// Ends the Domino side of a database of a backup, successful or not.
int finishDatabase(const char* cpName) {
    const int result = finishBackupFile(cpName, bFileOpen);
    if (result != DB_NUM_I_OK) {
        DB_TraceExt("DB_ItemFinishStatus(): Checking backup file for %s failed",
                    getUTF8FileName(cpName));
    }
    OSResetArchiveAttribute(cpName);
    return result == DB_NUM_I_OK ? DB_NUM_I_OK : DB_NUM_E_FAILED;
}

int finishUnsuccessful(const s_CurrentItem& item, DB_ITEM_RESULT e_ItemFinishStatus) {
    const char* cpName = item.szCurrentListItem;
    if (*cpName == '\0') {
        // Not run by a test: the caller has refused such a path, or built it so that it fits.
        DB_TraceExt("DB_ItemFinishStatus(): Got Finish Status for empty item []: FAILED");
        return DB_NUM_I_OK;
    }
    if (e_ItemFinishStatus == DB_ITEM_EXCLUDED) {
        DB_TraceExt("DB_ItemFinishStatus(): File Finish Status for file [%s]: EXCLUDED",
                    getUTF8FileName(cpName));
    } else {
        DB_TraceExt("DB_ItemFinishStatus(): File Finish Status for file [%s]: FAILED",
                    getUTF8FileName(cpName));
    }
    if (g_sQRTLN_Global.eI_OperationType == DB_TYPE_BCK &&
        item.e_CurrentBackupFileType == DB_BACKUP_FILE_TYPE_DB) {
        return finishDatabase(cpName);
    }
    return DB_NUM_I_OK;
}

int finishBackup(const s_CurrentItem& item) {
    switch (item.e_CurrentBackupFileType) {
    case DB_BACKUP_FILE_TYPE_DB:
        return finishDatabase(item.szCurrentListItem);
    case DB_BACKUP_FILE_TYPE_LOG:
        // Marked at the close, when the client says that everything is stored.
        DB_TraceExt("DB_ItemFinishStatus(): SKIP finishArchiveLog(&dwLogNumber %d, &LogId %d, "
                    "bActiveLogBackup %d)",
                    static_cast<int>(item.dwLogNumber),
                    static_cast<int>(item.LogId.File.Innards[0]), item.bActiveLogBackup);
        return DB_NUM_I_OK;
    default:
        return DB_NUM_I_OK;
    }
}

int finishDocumentRestore(const s_CurrentItem& item) {
    DB_LogExt("... Documents level restore ...");
    const char* cpRestored = item.szCurrentListItem;
    const char* delimiter = std::strrchr(cpRestored, kDelimiter);
    const char* cpBase = delimiter != nullptr ? delimiter + 1 : cpRestored;
    const std::size_t length = std::strlen(szCurrentOriginalDirectory);
    const bool bDelimited = length > 0 && szCurrentOriginalDirectory[length - 1] == kDelimiter;
    char szLive[kPathSize];
    const bool bFits =
        bDelimited
            ? formatText(szLive, sizeof szLive, "%s%s", szCurrentOriginalDirectory, cpBase)
            : formatText(szLive, sizeof szLive, "%s%s%s", szCurrentOriginalDirectory, "/", cpBase);
    if (!bFits) {
        return fail("DB_ItemFinishStatus(): the path of the live database is too long");
    }
    // The result goes to the client as it is.
    if (g_sQRTLN_Global.LNDocRecoveryType == LNDocRecoveryType_del) {
        DB_LogExt("... Deleted Documents restore ...");
        return DeletedDocumentsRecovery(cpRestored, szLive);
    }
    if (g_sQRTLN_Global.LNDocRecoveryType == LNDocRecoveryType_chg) {
        DB_LogExt("... Changed documents restore ...");
        return ChangedDocumentsRecovery(cpRestored, szLive);
    }
    // Not run by a test: no caller passes another value today.
    return DB_NUM_I_OK;
}

int finishRestore(const s_CurrentItem& item) {
    if (g_sQRTLN_Global.LNDocRecoveryType != LNDocRecoveryType_non) {
        return finishDocumentRestore(item);
    }
    // Activation waits for the last part of an incremental restore.
    if (isIncrementalRestore() || !g_sQRTLN_Global.bActivate) {
        return DB_NUM_I_OK;
    }
    const char* cpName = item.szCurrentListItem;
    if (*cpName == '\0') {
        // Not run by a test: the caller has refused such a path, or built it so that it fits.
        DB_TraceExt("DB_ItemFinishStatus(): There was no file to activate. Skipping activation "
                    "...");
        return DB_NUM_I_OK;
    }
    if (!isFileNotesNSF(cpName)) {
        return DB_NUM_I_OK;
    }
    DB_LogExt("Activate item");
    if (QRTLN_Activate(cpName, szCurrentOriginalDirectory) != DB_NUM_I_OK) {
        DB_TraceExt("DB_ItemFinishStatus(): Activation failed");
        return DB_NUM_E_FAILED;
    }
    DB_TraceExt("DB_ItemFinishStatus(): Activation succeeded");
    return DB_NUM_I_OK;
}

int itemFinishStatus(DB_ITEM_RESULT e_ItemFinishStatus) {
    traceBanner("DB_ItemFinishStatus() call.");
    const s_CurrentItem* pending = nextUnfinished();
    if (pending == nullptr) {
        // The text of a runtime that is not up, although the list is empty: clients know it as the
        // answer to a finish too many.
        DB_TraceExt("Unexpected LL_CurrentItemList is empty");
        return fail(kRuntimeNotInitialized);
    }
    const s_CurrentItem item = *pending;

    // Whatever the finish status: a log of a failed item is held back by the status of the whole
    // run alone, so a client must not close with "0" after a failed item.
    if (item.e_CurrentBackupFileType == DB_BACKUP_FILE_TYPE_LOG &&
        !appendRecord(g_sQRTLN_Global.LL_ArchivedLogList, item)) {
        // Not run by a test: the lists end the process before they return nothing.
        const int error = errno;
        // The function's name in the text is an older one; readers of logs look for it.
        // Not run by a test: the lists end the process before they return nothing.
        DB_LogExt("DB_FileFinishStatus: InsLastLL returned malloc error (%d): %s", error,
                  getSysMsg(static_cast<unsigned int>(error)));
        DB_ErrHandler(static_cast<unsigned long>(error), kErrorKindErrno, "malloc failed");
        return DB_NUM_E_FAILED;
    }

    // The last element stays, with the cursor on it: the way to an item that DB_GetItem appends
    // later leads through it.
    if (!IsElmLL(NextElmLL(psCurrentListItem))) {
        DB_TraceExt("Keep last element [%s]", getUTF8FileName(item.szCurrentListItem));
    } else {
        DB_TraceExt("Delete element from list [%s]", getUTF8FileName(item.szCurrentListItem));
        DelElmLL(psCurrentListItem);
        psCurrentListItem = nullptr;
    }
    DB_TraceExt("DB_ItemFinishStatus(): Item %s", getUTF8FileName(item.szCurrentListItem));
    if (item.bActiveLogBackup) {
        DB_TraceExt("DB_ItemFinishStatus(): bActiveLogBackup %d", item.bActiveLogBackup);
    }

    if (requireRuntime() != DB_NUM_I_OK) {
        // Not run by a test: the lists end the process before they return nothing.
        return DB_NUM_E_FAILED;
    }
    if (e_ItemFinishStatus != DB_ITEM_SUCCESS) {
        return finishUnsuccessful(item, e_ItemFinishStatus);
    }
    DB_TraceExt("DB_ItemFinishStatus(): Item Finish Status for file %s: SUCCESS",
                getUTF8FileName(item.szCurrentListItem));
    switch (g_sQRTLN_Global.eI_OperationType) {
    case DB_TYPE_BCK:
        return finishBackup(item);
    case DB_TYPE_RST:
        return finishRestore(item);
    // Not run by a test: no caller passes another value today.
    default:
        return fail(kOperationNotExpected);
    }
}

} // namespace

QRTLN_EXPORT int DB_GetItem(char* cpBackupDirectory, char* cpOriginalDirectory, char* cpFileName) {
    return entry_point::run(
        [&] { return getItem(cpBackupDirectory, cpOriginalDirectory, cpFileName); });
}

QRTLN_EXPORT int DB_PrepareItem(const char* szItem, char* szNewFile) {
    return entry_point::run([&] { return prepareItem(szItem, szNewFile); });
}

QRTLN_EXPORT int DB_SetItem(DB_ITEM_TYPE e_ItemType, char* cpItem) {
    return entry_point::run([&] { return setItem(e_ItemType, cpItem); });
}

QRTLN_EXPORT int DB_ItemFinishStatus(DB_ITEM_RESULT e_ItemFinishStatus) {
    return entry_point::run([&] { return itemFinishStatus(e_ItemFinishStatus); });
}

QRTLN_EXPORT int DB_DirItem(sFormat* cpItem) {
    return entry_point::run([&] {
        char szName[sizeof cpItem->szCurFullFileName] = "(null)";
        if (cpItem != nullptr) {
            copyText(szName, cpItem->szCurFullFileName);
        }
        traceBanner("DB_DirItem() [%s]", szName);
        return static_cast<int>(DB_NUM_I_COMPLETE);
    });
}
