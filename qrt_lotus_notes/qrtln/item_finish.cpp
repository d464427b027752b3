#include "qrt_lotus_notes/qrtln/item_finish.h"

#include <cstring>

#include "qrt_lotus_notes/qrtln/entry_point.h"
#include "qrt_lotus_notes/qrtln_f/activation.h"
#include "qrt_lotus_notes/qrtln_f/backup_need.h"
#include "qrt_lotus_notes/qrtln_n/document_restore.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"

namespace {

using entry_point::fail;

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
    char szLive[kPathSize];
    if (!joinPath(szLive, sizeof szLive, szCurrentOriginalDirectory, cpBase)) {
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

} // namespace

int finishSuccessful(const s_CurrentItem& item) {
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

int finishUnsuccessful(const s_CurrentItem& item, DB_ITEM_RESULT e_ItemFinishStatus) {
    const char* cpName = item.szCurrentListItem;
    if (*cpName == '\0') {
        // Not run by a test: the caller has refused such a path, or built it so that it fits.
        DB_TraceExt("DB_ItemFinishStatus(): Got Finish Status for empty item []: FAILED");
        return DB_NUM_I_OK;
    }
    DB_TraceExt("DB_ItemFinishStatus(): File Finish Status for file [%s]: %s",
                getUTF8FileName(cpName),
                e_ItemFinishStatus == DB_ITEM_EXCLUDED ? "EXCLUDED" : "FAILED");
    if (g_sQRTLN_Global.eI_OperationType == DB_TYPE_BCK &&
        item.e_CurrentBackupFileType == DB_BACKUP_FILE_TYPE_DB) {
        return finishDatabase(cpName);
    }
    return DB_NUM_I_OK;
}
