// The entry points that move items through an operation, one at a time.
#include <cstring>

#include "qrt_lotus_notes/qrtln/entry_point.h"
#include "qrt_lotus_notes/qrtln/item_finish.h"
#include "qrt_lotus_notes/qrtln/item_list.h"
#include "qrt_lotus_notes/qrtln/next_item.h"
#include "qrt_lotus_notes/qrtln_f/backup_need.h"
#include "qrt_lotus_notes/qrtln_f/restore_placement.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"

namespace {

using entry_point::fail;
using entry_point::kMissingArgument;
using entry_point::requireBackup;
using entry_point::requireRuntime;
using entry_point::shown;

// Clients of other platforms put this before an absolute path.
constexpr char kLongPathPrefix[] = "\\\\?\\";

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
    s_CurrentItem item{};
    const int result = nextItem(cpFileName, item);
    if (result == DB_NUM_I_OK) {
        copyText(item.szCurrentListItem, cpFileName);
        DB_TraceExt("DB_GetItem(): Push %s", getUTF8FileName(cpFileName));
        if (!appendRecord(g_sQRTLN_Global.LL_CurrentItemList, item)) {
            // Not run by a test: the lists end the process before they return nothing.
            return reportNoRecord("DB_GetItem");
        }
    }
    DB_TraceExt("DB_GetItem(): return %d", result);
    return result;
}

// A transaction log is read where it lies.
int prepareLog(const char* szItem, char* szNewFile) {
    DB_TraceExt("DB_PrepareItem(): Full Backup Archive Log File.");
    if (std::strchr(szItem, kDelimiter) == nullptr) {
        DB_LogExt("DB_PrepareItem(): ERROR: Missing delimiter '%c' in %s.", kDelimiter,
                  getUTF8FileName(szItem));
        DB_LogExt("Preparing backup file failure: %s", getUTF8FileName(szItem));
        return DB_NUM_E_FAILED;
    }
    copyText(szNewFile, kPathSize, szItem);
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
    if (result == DB_NUM_E_FAILED) {
        DB_LogExt("DB_SetItem(); QRTLN_SetFile(%s) call failed", getUTF8FileName(szName));
        return DB_NUM_E_FAILED;
    }
    if (result == DB_NUM_I_NOT_SELECTED) {
        return DB_NUM_E_FAILED; // no message: most items of a selective restore end here
    }
    s_CurrentItem item{};
    copyText(item.szCurrentListItem, szName);
    item.e_CurrentBackupFileType = DB_BACKUP_FILE_TYPE_DB;
    appendRecord(g_sQRTLN_Global.LL_CurrentItemList, item);
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
        // The function's name in the text is an older one; readers of logs look for it.
        // Not run by a test: the lists end the process before they return nothing.
        return reportNoRecord("DB_FileFinishStatus");
    }

    leaveFinished(item);
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
    return finishSuccessful(item);
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
