#include "qrt_lotus_notes/qrtln_f/backup_initialisation.h"

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_f/dbiid_index.h"
#include "qrt_lotus_notes/qrtln_f/fifo_list.h"
#include "qrt_lotus_notes/qrtln_f/file_discovery.h"
#include "qrt_lotus_notes/qrtln_f/path_text.h"
#include "qrt_lotus_notes/qrtln_n/log_archiving.h"
#include "qrt_lotus_notes/qrtln_n/runtime_session.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

bool isFullOrCopy() {
    return g_sQRTLN_Global.eI_OperationLevel == DB_LEVEL_COPY ||
           g_sQRTLN_Global.eI_OperationLevel == DB_LEVEL_FULL;
}

void traceLevel() {
    constexpr const char* kLevels[] = {"Copy", "Full", "Differential", "Incremental"};
    if (g_sQRTLN_Global.eI_OperationLevel <= DB_LEVEL_INCR) {
        DB_TraceExt("QRTLN_InitBackup(): %s Backup", kLevels[g_sQRTLN_Global.eI_OperationLevel]);
    }
}

void traceWholeSystem() {
    DB_TraceExt("QRTLN_InitBackup(): Whole Lotus Notes System %s backup.",
                isFullOrCopy() ? "full" : "differential");
}

void traceParticular() {
    const bool bDiff = g_sQRTLN_Global.eI_OperationLevel == DB_LEVEL_DIFF;
    DB_TraceExt("QRTLN_InitBackup(): Particular Lotus Notes %s backup.", isFullOrCopy() ? "full"
                                                                         : bDiff ? "differential"
                                                                                 : "incremental");
}

enum class Arguments { wholeSystem, particular, failed };

// Takes the database arguments in order, up to one that means the whole system. Plain ones are
// searched at once, wildcards are kept for the end.
Arguments takeArguments(FifoList& lhListIncludePatterns) {
    char szArgument[kPathSize];
    unsigned int uiSize = 0;
    DB_BACKUP_FILE_TYPE eKind = DB_BACKUP_FILE_TYPE_DB;
    while (PullFIFOItemLN(g_sQRTLN_Global.lhArgumentFileList, szArgument, &uiSize, &eKind)) {
        const char* cpArgument = withoutArgumentPrefix(szArgument);
        if (isWholeSystemArgument(cpArgument) || std::strcmp(cpArgument, "/") == 0) {
            return Arguments::wholeSystem;
        }
        g_sQRTLN_Global.eI_BackupType = QRTLN_OPERATION_TYPE_PARTICULAR;
        traceParticular();
        if (!lhListIncludePatterns) {
            lhListIncludePatterns.reset(CreateFIFOList());
        }
        if (!IsValidPattern(cpArgument)) {
            DB_ErrHandler(0, kErrorKindNone, "QRTLN_InitBackup: File not found [%s]", cpArgument);
            terminateNotesOperation();
            return Arguments::failed;
        }
        // "*.*" stands for a directory, whose files are filtered by the Domino patterns; any other
        // wildcard names its files itself.
        if (std::strchr(cpArgument, '*') && !std::strstr(cpArgument, "*.*")) {
            pushPath(lhListIncludePatterns.get(), cpArgument, DB_BACKUP_FILE_TYPE_DB);
        } else if (getNotesFileList(cpArgument, g_sQRTLN_Global.eI_OperationLevel) != DB_NUM_I_OK) {
            return Arguments::failed;
        }
    }
    return Arguments::particular;
}

// How a backup of the whole system goes on after its logs were looked for.
enum class LogStart { goOn, withoutLogs, failed };

// Begins the archiving of logs for a backup of the whole system that is to have them.
LogStart beginWholeSystemLogs() {
    if (!isFullOrCopy()) {
        return LogStart::goOn;
    }
    if (!g_sQRTLN_Global.bWithArchiveLogs) {
        // A full backup always comes this way: DB_InitOperation sets bWithArchiveLogs only after
        // QRTLN_InitBackup. It asks for logs all the same, without a session begun here.
        DB_TraceExt("QRTLN_InitBackup(): bWithArchiveLogs %d >> no archive logs will be "
                    "backed up",
                    g_sQRTLN_Global.bWithArchiveLogs);
        return LogStart::goOn;
    }
    switch (QRTLN_InitArchiveLogs()) {
    case DB_NUM_I_OK:
        return LogStart::goOn;
    case DB_NUM_I_CIRCULAR_LOG:
        DB_TraceExt("QRTLN_InitBackup(): Whole system backup detect circular logging "
                    "style. Archive log skipped.");
        return LogStart::withoutLogs;
    case DB_NUM_I_NOTRANSLOGGING:
        DB_TraceExt("QRTLN_InitBackup(): There is no transaction logging. Archive log "
                    "skipped.");
        return LogStart::withoutLogs;
    default:
        DB_TraceExt("QRTLN_InitBackup(): Initiation of transaction logs archive failed");
        return LogStart::failed;
    }
}

} // namespace

int QRTLN_InitBackup() {
    const ArgumentListRelease release;
    const DB_OPERATION_LEVEL eLevel = g_sQRTLN_Global.eI_OperationLevel;
    traceLevel();
    openDBIIDIndex();

    // An incremental backup is nothing without the logs: it fails here on a server without them.
    if (eLevel == DB_LEVEL_INCR) {
        const int result = QRTLN_InitArchiveLogs();
        if (result != DB_NUM_I_OK) {
            return result == DB_NUM_I_CIRCULAR_LOG ? DB_NUM_I_CIRCULAR_LOG : DB_NUM_E_FAILED;
        }
    }

    g_sQRTLN_Global.eI_BackupType = QRTLN_OPERATION_TYPE_NOTES;
    FifoList lhListIncludePatterns;
    const Arguments arguments = takeArguments(lhListIncludePatterns);
    if (arguments == Arguments::failed) {
        return DB_NUM_E_FAILED;
    }

    int result = DB_NUM_I_OK;
    if (arguments == Arguments::wholeSystem) {
        g_sQRTLN_Global.eI_BackupType = QRTLN_OPERATION_TYPE_NOTES;
        traceWholeSystem();
        if (getNotesFileList(g_sQRTLN_Global.szNotesDataDirectory, eLevel) != DB_NUM_I_OK) {
            return DB_NUM_E_FAILED;
        }
        if (const LogStart logs = beginWholeSystemLogs(); logs != LogStart::goOn) {
            return logs == LogStart::withoutLogs ? DB_NUM_I_OK : DB_NUM_E_FAILED;
        }
    } else {
        result = getParticularFileList(lhListIncludePatterns.get());
    }

    const int iFound = getFIFOItemNumber(g_sQRTLN_Global.lhNotesFileList);
    if (iFound == 0) {
        DB_ErrHandler(0, kErrorKindNone,
                      "QRTLN_InitBackup: No files found which match input QRT arguments");
        return DB_NUM_E_FAILED;
    }
    DB_TraceExt("QRTLN_InitBackup(): Total number of files encountered: %d", iFound);
    return result == DB_NUM_I_OK ? DB_NUM_I_OK : DB_NUM_E_FAILED;
}
