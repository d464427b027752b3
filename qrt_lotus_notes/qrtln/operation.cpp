// The entry points that open and close an operation, stop it and identify the module.
#include "common/non_copyable.h"
#include "qrt_lotus_notes/qrtln/build_identification.h"
#include "qrt_lotus_notes/qrtln/entry_point.h"
#include "qrt_lotus_notes/qrtln/item_list.h"
#include "qrt_lotus_notes/qrtln_f/backup_initialisation.h"
#include "qrt_lotus_notes/qrtln_f/dbiid_index.h"
#include "qrt_lotus_notes/qrtln_f/recovery.h"
#include "qrt_lotus_notes/qrtln_f/restore_placement.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_n/backup_copy.h"
#include "qrt_lotus_notes/qrtln_n/log_archiving.h"
#include "qrt_lotus_notes/qrtln_n/runtime_session.h"
#include "qrt_lotus_notes/qrtln_u/control_variables.h"

#include <strings.h>

namespace {

// Between operations; no entry point expects it.
constexpr DB_OPERATION_TYPE kNoOperation = static_cast<DB_OPERATION_TYPE>(0);

// Ends the backup context of the item in progress, if there is one.
void closePendingBackup() {
    if (g_sQRTLN_Global.hCurrDB != 0 && g_sQRTLN_Global.bNotesInitialized) {
        // Not run by a test: open; a path that is too long, or cannot be translated.
        CloseDbBackup("pending.nsf"); // closes what the record holds; asks the name's kind only
    }
    g_sQRTLN_Global.hCurrDB = 0;
    g_sQRTLN_Global.hCurrBackupContext = 0;
}

// Releases the queues and lists of the operation. The finish cursor points into one of them.
void releaseLists() {
    DestroyFIFOList(g_sQRTLN_Global.lhNotesFileList);
    g_sQRTLN_Global.lhNotesFileList = nullptr;
    DestroyFIFOList(g_sQRTLN_Global.lhArgumentFileList);
    g_sQRTLN_Global.lhArgumentFileList = nullptr;
    psCurrentListItem = nullptr;
    if (g_sQRTLN_Global.LL_CurrentItemList != nullptr) {
        g_sQRTLN_Global.LL_CurrentItemList = DestLL(g_sQRTLN_Global.LL_CurrentItemList);
    }
    if (g_sQRTLN_Global.LL_ArchivedLogList != nullptr) {
        g_sQRTLN_Global.LL_ArchivedLogList = DestLL(g_sQRTLN_Global.LL_ArchivedLogList);
    }
}

// An archiving session that an abandoned operation may have left on the server is still to be
// ended.
bool s_archivingToEnd = false;

// Keeps the error record as it is while another operation is undone: what that reports is logged,
// but is no error of the operation that starts.
class ErrorRecordKeeper : NonCopyable {
  public:
    ErrorRecordKeeper() : m_code(g_sQRTLN_Global.ulDBErrorCode) {
        copyText(m_type, g_sQRTLN_Global.szDBErrorType);
        copyText(m_message, g_sQRTLN_Global.szDBErrorMsg);
    }
    ~ErrorRecordKeeper() {
        g_sQRTLN_Global.ulDBErrorCode = m_code;
        copyText(g_sQRTLN_Global.szDBErrorType, m_type);
        copyText(g_sQRTLN_Global.szDBErrorMsg, m_message);
    }

  private:
    unsigned long m_code;
    char m_type[sizeof g_sQRTLN_Global.szDBErrorType];
    char m_message[sizeof g_sQRTLN_Global.szDBErrorMsg];
};

// Ends that session, once the server may be asked.
void endAbandonedArchiving() {
    if (s_archivingToEnd && g_sQRTLN_Global.bNotesInitialized) {
        const ErrorRecordKeeper keeper;
        s_archivingToEnd = false;
        endArchiveLogs();
    }
}

// Undoes an operation that the client never closed, as a close that reports failure would: no log
// is marked, the index stays.
void abandonOperation() {
    const ErrorRecordKeeper keeper;
    if (g_sQRTLN_Global.eI_OperationType != kNoOperation) {
        DB_LogExt("DB_InitOperation(): The operation before was not closed: it counts as failed");
    }
    if (g_sQRTLN_Global.eI_OperationType == DB_TYPE_BCK) {
        s_archivingToEnd = s_archivingToEnd || g_sQRTLN_Global.bWithArchiveLogs;
        endAbandonedArchiving();
        QRTLN_EndDBIIDIndexProcessing(FALSE);
    }
    closePendingBackup();
    releaseLists();
    releaseDBIIDIndex();
    if (g_sQRTLN_Global.bNotesInitialized) {
        terminateNotesOperation();
    }
}

const char* levelName(DB_OPERATION_LEVEL level) {
    constexpr const char* kNames[] = {"DB_LEVEL_COPY", "DB_LEVEL_FULL", "DB_LEVEL_DIFF",
                                      "DB_LEVEL_INCR"};
    return kNames[level < DB_LEVEL_INCR ? level : DB_LEVEL_INCR];
}

// Makes a directory end in "/". False (reported) when it leaves no room for it.
bool appendDelimiter(char (&szDirectory)[kPathSize]) {
    const std::size_t length = std::strlen(szDirectory);
    if ((length > 0 && szDirectory[length - 1] == kDelimiter) || appendText(szDirectory, "/")) {
        return true;
    }
    DB_ErrHandler(0, kErrorKindNone, "The path of a directory of the server is longer than %zu: %s",
                  kPathSize - 2, szDirectory);
    return false;
}

// After the initialisation of a backup and whatever its result. A full backup therefore asks for
// logs without having begun an archiving session, and ends one at its close; an incremental one
// whose start failed asks to end archiving at its close, too: the server is then rid of a session
// that a failed start may have left.
void decideArchiveLogs() {
    if ((g_sQRTLN_Global.eI_BackupType == QRTLN_OPERATION_TYPE_NOTES &&
         g_sQRTLN_Global.eI_OperationLevel == DB_LEVEL_FULL) ||
        g_sQRTLN_Global.eI_OperationLevel == DB_LEVEL_INCR) {
        g_sQRTLN_Global.bWithArchiveLogs = TRUE;
        DB_TraceExt("DB_InitOperation: set bWithArchiveLogs %s", "TRUE");
    }
}

int startBackup() {
    int result = DB_NUM_E_FAILED;
    try {
        result = QRTLN_InitBackup();
    } catch (...) {
        decideArchiveLogs();
        throw;
    }
    decideArchiveLogs();
    return result;
}

// Starts the work of the operation; its item queue is there.
int startOperation() {
    g_sQRTLN_Global.lhNotesFileList = CreateFIFOList();
    if (g_sQRTLN_Global.eI_OperationType == DB_TYPE_BCK) {
        return startBackup();
    }
    if (g_sQRTLN_Global.bRecovery) {
        const int result = QRTLN_InitRecovery();
        return result == DB_NUM_I_OK ? QRTLN_Recovery() : result;
    }
    return QRTLN_InitRestore();
}

int initOperation(DB_OPERATION_TYPE eI_OperationType, DB_OPERATION_LEVEL eI_OperationLevel,
                  char** cppI_CtrlVars, const sQRT_DB* pDB_QRT_Params) {
    traceBanner("DB_InitOperation() call.");
    abandonOperation();
    g_sQRTLN_Global.eI_OperationType = eI_OperationType;
    g_sQRTLN_Global.eI_OperationLevel = eI_OperationLevel;
    g_sQRTLN_Global.bNotesInitialized = FALSE;
    g_sQRTLN_Global.bWithArchiveLogs = FALSE;
    // A directory that another operation announced is no place for what this one restores.
    szCurrentOriginalDirectory[0] = '\0';
    requestStop(false);

    if (pDB_QRT_Params != nullptr) {
        char szSaveset[sizeof pDB_QRT_Params->szSaveset];
        copyText(szSaveset, pDB_QRT_Params->szSaveset);
        DB_TraceExt("Saveset %s", szSaveset);
    }
    DB_TraceExt("DB_InitOperation: Operation level  %s", levelName(eI_OperationLevel));

    g_sQRTLN_Global.LL_CurrentItemList = ConsLL();
    g_sQRTLN_Global.LL_ArchivedLogList = ConsLL();
    g_sQRTLN_Global.LNDocRecoveryType = LNDocRecoveryType_non;

    // What fails up to the directories is left for DB_CloseOperation to clean up.
    char* noVariables[] = {nullptr};
    if (ProcessCtrlVars(cppI_CtrlVars != nullptr ? cppI_CtrlVars : noVariables) != DB_NUM_I_OK) {
        return DB_NUM_E_FAILED;
    }
    if (startNotesOperation() != DB_NUM_I_OK) {
        DB_TraceExt("DB_InitOperation(): LN C API call NotesInitExtended() failed");
        return DB_NUM_E_FAILED;
    }
    endAbandonedArchiving();
    if (getNotesDirectories(g_sQRTLN_Global.szNotesDataDirectory,
                            g_sQRTLN_Global.szNotesBinDirectory,
                            static_cast<int>(kPathSize)) == DB_NUM_E_FAILED) {
        DB_LogExt("DB_InitOperation(): Could not get Lotus Notes Data Directory");
        return DB_NUM_E_FAILED;
    }
    if (!appendDelimiter(g_sQRTLN_Global.szNotesDataDirectory) ||
        !appendDelimiter(g_sQRTLN_Global.szNotesBinDirectory)) {
        return DB_NUM_E_FAILED;
    }

    const bool bExpected = eI_OperationType == DB_TYPE_BCK || eI_OperationType == DB_TYPE_RST;
    const int result = bExpected ? startOperation() : entry_point::fail(kOperationNotExpected);
    if (result == DB_NUM_I_OK) {
        return DB_NUM_I_OK;
    }
    DestroyFIFOList(g_sQRTLN_Global.lhNotesFileList);
    g_sQRTLN_Global.lhNotesFileList = nullptr;
    if (result == DB_NUM_I_COMPLETE) {
        return DB_NUM_I_COMPLETE; // done, with the runtime still up
    }
    terminateNotesOperation();
    return DB_NUM_E_FAILED;
}

// Whether the client reports success: any STATUS that is "0" does, and a later one takes nothing
// back.
bool readStatus(char** cppI_CtrlVars) {
    constexpr std::size_t kKeyword = sizeof "STATUS" - 1;
    if (cppI_CtrlVars == nullptr) {
        DB_TraceExt("DB_CloseOperation: cppI_CtrlVars == NULL");
        return false;
    }
    bool bOk = false;
    for (; *cppI_CtrlVars != nullptr; ++cppI_CtrlVars) {
        const char* variable = *cppI_CtrlVars;
        DB_TraceExt("DB_CloseOperation(): Processing control argument [%s]", variable);
        if (strncasecmp(variable, "STATUS", kKeyword) != 0) {
            continue;
        }
        // The character between keyword and value is not looked at.
        const char* value = variable[kKeyword] != '\0' ? variable + kKeyword + 1 : "";
        if (std::strcmp(value, "0") == 0) {
            DB_TraceExt("DB_CloseOperation(): Ok status with [%s]", variable);
            bOk = true;
        } else {
            DB_TraceExt("DB_CloseOperation(): Got status [%s]", variable);
        }
    }
    return bOk;
}

// Tells the server which logs are safely stored.
void markLogsArchived() {
    t_LL list = g_sQRTLN_Global.LL_ArchivedLogList;
    if (list == nullptr || IsEmptyLL(list)) {
        return;
    }
    for (void* element = FirstElmLL(list); IsElmLL(element); element = NextElmLL(element)) {
        auto* log = static_cast<s_CurrentItem*>(element);
        DB_TraceExt("DB_CloseOperation(): Archived log %s", log->szCurrentListItem);
        if (finishArchiveLog(&log->dwLogNumber, &log->LogId, log->bActiveLogBackup) !=
            DB_NUM_I_OK) {
            DB_LogExt("DB_CloseOperation(): finishArchiveLog() failed");
        }
    }
}

int closeBackup(bool bOk) {
    int result = DB_NUM_I_OK;
    if (g_sQRTLN_Global.bWithArchiveLogs) {
        if (bOk) {
            markLogsArchived();
        }
        result = endArchiveLogs();
        if (result == DB_NUM_I_CIRCULAR_LOG) {
            DB_TraceExt("DB_CloseOperation(): %s",
                        "Lotus Notes has circular logging style enabled");
            result = DB_NUM_I_OK;
        } else if (result != DB_NUM_I_OK) {
            DB_LogExt("DB_CloseOperation(): endArchiveLogs call failed");
        }
    }
    if (result == DB_NUM_I_OK) {
        QRTLN_EndDBIIDIndexProcessing(bOk ? TRUE : FALSE);
    }
    return result;
}

int closeOperation(char** cppI_CtrlVars) {
    traceBanner("DB_CloseOperation() call");
    const bool bOk = readStatus(cppI_CtrlVars);
    const int result =
        g_sQRTLN_Global.eI_OperationType == DB_TYPE_BCK ? closeBackup(bOk) : DB_NUM_I_OK;

    forgetDBIIDIndexRun(); // also of one whose end failed before: the next must not take its copy
    DB_TraceExt("DB_CloseOperation(): Releasing global structures.");
    closePendingBackup();
    releaseLists();
    terminateNotesOperation();
    // Closed once: a second close must neither end a session that is not ours nor touch the index.
    g_sQRTLN_Global.eI_OperationType = kNoOperation;
    g_sQRTLN_Global.bWithArchiveLogs = FALSE;
    DB_TraceExt("DB_CloseOperation(): return %d", result);
    return result;
}

} // namespace

QRTLN_EXPORT int DB_InitOperation(DB_OPERATION_TYPE eI_OperationType,
                                  DB_OPERATION_LEVEL eI_OperationLevel, char** cppI_CtrlVars,
                                  sQRT_DB* pDB_QRT_Params) {
    return entry_point::run([&] {
        return initOperation(eI_OperationType, eI_OperationLevel, cppI_CtrlVars, pDB_QRT_Params);
    });
}

QRTLN_EXPORT int DB_CloseOperation(char** cppI_CtrlVars) {
    return entry_point::run([&] { return closeOperation(cppI_CtrlVars); });
}

QRTLN_EXPORT int DB_Terminate() {
    return entry_point::run([] {
        requestStop(true); // first: the trace callback may be slow
        traceBanner("DB_Terminate()");
        return static_cast<int>(DB_NUM_I_OK);
    });
}

QRTLN_EXPORT int DB_GetInfo(TYPE_DB_Info* spO_DBInfo) {
    return entry_point::run([&] {
        if (spO_DBInfo == nullptr) {
            return entry_point::fail(entry_point::kMissingArgument);
        }
        static char szClient[] = "NUVOR Domino Server R8/R9/R10/R11 Backup Client";
        static char szVersion[] = "5.2.0.24";
        static char szBuild[sizeof kBuildIdentification];
        copyText(szBuild, kBuildIdentification);
        spO_DBInfo->cpDBClient = szClient;
        spO_DBInfo->cpDBVersion = szVersion;
        spO_DBInfo->cpDBRelDate = szBuild;
        spO_DBInfo->eDBType = DB_FILE_PREPARE;
        spO_DBInfo->bProvideUnicode = FALSE;
        return static_cast<int>(DB_NUM_I_OK);
    });
}
