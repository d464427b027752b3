#include "qrt_lotus_notes/qrtln_n/log_archiving.h"

#include <cstring>
#include <utility>

#include "common/bounded_text.h"
#include "notes_api/notes_api.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "qrt_lotus_notes/qrtln_u/control_variables.h"

namespace {

// The active log last handed out: a later operation of the process hands it out again only when it
// has changed.
char szLastReturnedActiveLog[kPathSize];

// Writes the path of a log and its directory; the whole path where it has no directory.
void splitLogPath(const char* szLogPath, const char* invalidText, char* cpFile,
                  char* cpBackupDirectory) {
    copyText(cpFile, kPathSize, szLogPath);
    copyText(cpBackupDirectory, kPathSize, szLogPath);
    char* last = std::strrchr(cpBackupDirectory, kDelimiter);
    if (last == nullptr) {
        DB_TraceExt("%s", invalidText);
        return;
    }
    *last = '\0';
    DB_TraceExt("getArchiveLog(): Returning dir [%s]", cpBackupDirectory);
}

// Two logs of a server may have the same folded identity, which is 0 where its halves are equal:
// hosts tell them apart by this line, which follows the one that hands a log out.
void logWholeIdentity(const UNIVERSALNOTEID& LogId, unsigned number) {
    char szLogId[kDbIIdTextSize];
    formatDbIId(LogId, szLogId);
    DB_LogExt("Archive identity [%s], Log number %u", szLogId, number);
}

// Answers a server whose log style cannot be read. A backup of everything can do without logs.
int answerUnknownStyle(DB_LOGGING_STYLE style) {
    DB_TraceExt("getArchiveLog(): Getting system log style failed");
    if (style == DB_LOGGING_STYLE_NOLOG) {
        DB_TraceExt("getArchiveLog(): Transactional logging is not in effect.");
        return DB_NUM_I_NOTRANSLOGGING;
    }
    const bool wholeBackup = g_sQRTLN_Global.eI_OperationType == DB_TYPE_BCK &&
                             (g_sQRTLN_Global.eI_OperationLevel == DB_LEVEL_COPY ||
                              g_sQRTLN_Global.eI_OperationLevel == DB_LEVEL_FULL);
    return wholeBackup ? DB_NUM_I_NOTRANSLOGGING : DB_NUM_E_FAILED;
}

} // namespace

int getSystemLogStyle(DB_LOGGING_STYLE* ep_DbLoggingStyle) {
    DB_TraceExt("getSystemLogStyle()");
    // A close that follows a failed start comes here without a library.
    if (!isNotesApiLoaded()) {
        reportRuntimeNotInitialized();
        return DB_NUM_E_FAILED;
    }
    WORD wLogType = 0;
    const STATUS status = notes_api.NSFGetTransLogStyle(&wLogType);
    if (status != kNotesNoError) {
        reportNotesError(status);
        if (isStatus(status, kNotesLoggingNotInEffect)) {
            DB_TraceExt("getSystemLogStyle(): Transactional logging is not in effect.");
            *ep_DbLoggingStyle = DB_LOGGING_STYLE_NOLOG;
        }
        return DB_NUM_E_FAILED;
    }
    switch (wLogType) {
    case kLogStyleCircular:
    case kLogStyleLinear: // has no extents to archive either: callers treat both alike
        DB_TraceExt("getSystemLogStyle(): Got Log style '%s'",
                    wLogType == kLogStyleCircular ? "CIRCULAR" : "LINEAR");
        *ep_DbLoggingStyle = DB_LOGGING_STYLE_CIRC;
        return DB_NUM_I_OK;
    case kLogStyleArchive:
        DB_TraceExt("getSystemLogStyle(): Got Log style 'ARCHIVE'");
        *ep_DbLoggingStyle = DB_LOGGING_STYLE_ARCH;
        return DB_NUM_I_OK;
    default:
        DB_TraceExt("getSystemLogStyle(): Got unknown Log style '[%d]'", wLogType);
        DB_ErrHandler(0, kErrorKindNone,
                      "getSystemLogStyle(): NSFGetTransLogStyle returned neither ARCHIVE nor "
                      "CIRCULAR style.");
        DB_TraceExt("getSystemLogStyle(): Unrecognizable Lotus Notes transaction log style");
        return DB_NUM_E_FAILED;
    }
}

int beginArchiveLogs() {
    DB_TraceExt("beginArchiveLogs()");
    if (!isNotesApiLoaded()) {
        reportRuntimeNotInitialized();
        return DB_NUM_E_FAILED;
    }
    WORD wLogType = 0;
    STATUS status = notes_api.NSFGetTransLogStyle(&wLogType);
    if (status != kNotesNoError) {
        reportNotesError(status);
        if (isStatus(status, kNotesLoggingNotInEffect)) {
            DB_LogExt("beginArchiveLogs(): Transactional logging is not in effect.");
            return DB_NUM_I_NOTRANSLOGGING;
        }
        return DB_NUM_E_FAILED;
    }
    if (wLogType == kLogStyleCircular || wLogType == kLogStyleLinear) {
        DB_LogExt("Lotus Notes has %s logging style enabled",
                  wLogType == kLogStyleCircular ? "circular" : "linear");
        return DB_NUM_I_CIRCULAR_LOG;
    }

    // Any other style is left to the server to refuse.
    DB_TraceExt("beginArchiveLogs(): Call NSFBeginArchivingLogs()");
    DB_LogExt("Call NSFBeginArchivingLogs()");
    status = notes_api.NSFBeginArchivingLogs();
    if (status == kNotesNoError) {
        return DB_NUM_I_OK;
    }
    DB_LogExt("beginArchiveLogs(): NSFBeginArchivingLogs() failed with %d", status);
    reportNotesError(status);
    if (isStatus(status, kNotesArchivingInProgress)) {
        DB_LogExt("beginArchiveLogs(): NSFBeginArchivingLogs() failed with "
                  "ERR_TRANSLOG_ARCHIVE_IN_PROGRESS");
        // Ends a session that a killed run left on the server; the next try finds it free.
        endArchiveLogs();
    }
    return DB_NUM_E_FAILED;
}

int endArchiveLogs() {
    DB_TraceExt("endArchiveLogs() call");
    DB_LOGGING_STYLE style = DB_LOGGING_STYLE_ARCH;
    if (getSystemLogStyle(&style) != DB_NUM_I_OK) {
        DB_LogExt("endArchiveLogs(): Getting system log style failed");
        return style == DB_LOGGING_STYLE_NOLOG ? DB_NUM_I_OK : DB_NUM_E_FAILED;
    }
    if (style == DB_LOGGING_STYLE_CIRC) {
        DB_LogExt("endArchiveLogs(): Log style is CIRCULAR - therefor skip NSFEndArchivingLogs()");
        return DB_NUM_I_CIRCULAR_LOG;
    }
    DB_LogExt("Call NSFEndArchivingLogs()");
    const STATUS status = notes_api.NSFEndArchivingLogs();
    if (status == kNotesNoError) {
        return DB_NUM_I_OK;
    }
    if (isStatus(status, kNotesArchivingInProgress)) {
        DB_LogExt("endArchiveLogs(): Another process is currently archiving logs. (%d)",
                  kNotesArchivingInProgress);
    } else {
        DB_LogExt("endArchiveLogs(): NSFEndArchivingLogs() failed with (%d)", status);
    }
    reportNotesError(status);
    return DB_NUM_E_FAILED;
}

int getArchiveLog(char* cpFile, char* cpBackupDirectory, BOOL bFirstPass, DWORD* pdwLogNumber,
                  UNIVERSALNOTEID* LogId, BOOL* bpActiveLogBackup) {
    *bpActiveLogBackup = FALSE;
    char szLogPath[kPathSize] = "";

    DB_LOGGING_STYLE style = DB_LOGGING_STYLE_ARCH;
    if (getSystemLogStyle(&style) != DB_NUM_I_OK) {
        return answerUnknownStyle(style);
    }
    if (style == DB_LOGGING_STYLE_CIRC) {
        return DB_NUM_I_CIRCULAR_LOG;
    }

    const STATUS status = bFirstPass
                              ? notes_api.NSFGetFirstLogToArchive(LogId, pdwLogNumber, szLogPath)
                              : notes_api.NSFGetNextLogToArchive(LogId, pdwLogNumber, szLogPath);
    szLogPath[sizeof szLogPath - 1] = '\0';
    const unsigned number = *pdwLogNumber;

    // A log that is ready to be archived.
    if (status == kNotesNoError) {
        DB_LogExt("Archive ID %08lx, Log number %u, log path [%s]", foldedId(*LogId), number,
                  szLogPath);
        logWholeIdentity(*LogId, number);
        DB_TraceExt("getArchiveLog(): Returning ready for archive transaction log [%s].",
                    szLogPath);
        SetOsPath(szLogPath);
        splitLogPath(szLogPath, "getArchiveLog(): Log path is invalid", cpFile, cpBackupDirectory);
        return DB_NUM_I_OK;
    }
    if (!isStatus(status, kNotesNoLogToArchive)) {
        reportNotesError(status);
        DB_TraceExt("getArchiveLog(): NSFGetFirst(Next)LogToArchive call failed");
        return DB_NUM_E_FAILED;
    }

    // No more of them: the path names the active log, which is handed out once.
    DB_TraceExt(bFirstPass
                    ? "getArchiveLog(): There is no transaction log ready to archive"
                    : "getArchiveLog(): There are no more transaction logs ready to archive");
    DB_TraceExt("getArchiveLog(): Active transaction log: [%s]", szLogPath);
    SetOsPath(szLogPath);
    if (szLogPath[0] == '\0' || std::strcmp(szLogPath, szLastReturnedActiveLog) == 0) {
        DB_TraceExt("getArchiveLog(): ACTIVE archive log already processed ID %08lx, Log number "
                    "%u, log path [%s]",
                    foldedId(*LogId), number, szLogPath);
        return DB_NUM_I_COMPLETE;
    }
    DB_LogExt("Back up active archive ID %08lx, Log number %u, log path [%s]", foldedId(*LogId),
              number, szLogPath);
    logWholeIdentity(*LogId, number);
    *bpActiveLogBackup = TRUE;
    DB_TraceExt("getArchiveLog(): Returning ACTIVE transaction log [%s] for backup", szLogPath);
    splitLogPath(szLogPath, "getArchiveLog(): log path is invalid", cpFile, cpBackupDirectory);
    copyText(szLastReturnedActiveLog, szLogPath);
    return DB_NUM_I_OK;
}

int finishArchiveLog(DWORD* pdwLogNumber, UNIVERSALNOTEID* LogId, BOOL bActiveLogBackup) {
    if (bActiveLogBackup) {
        // The server still writes to it.
        DB_LogExt("finishArchiveLog(): Active transaction log backup. Skip NSFDoneArchivingLog "
                  "call.");
        DB_TraceExt("Archive ID %08lx, Log number %u", foldedId(*LogId), *pdwLogNumber);
        return DB_NUM_I_OK;
    }
    if (!isNotesApiLoaded()) {
        reportRuntimeNotInitialized();
        return DB_NUM_E_FAILED;
    }
    DB_LogExt("Call NSFDoneArchivingLog: archive ID %08lx, Log number %u", foldedId(*LogId),
              *pdwLogNumber);
    const STATUS status = notes_api.NSFDoneArchivingLog(LogId, pdwLogNumber);
    if (status != kNotesNoError) {
        reportNotesError(status);
        DB_LogExt("finishArchiveLog(): NSFDoneArchivingLog call failed: %s",
                  getLotusNotesApiError(status, FALSE));
        return DB_NUM_E_FAILED;
    }
    return DB_NUM_I_OK;
}

int QRTLN_InitArchiveLogs() {
    DB_TraceExt("QRTLN_InitArchiveLogs(): initializing backup of archive logs ...");
    const int result = beginArchiveLogs();
    if (result == DB_NUM_I_OK) {
        return DB_NUM_I_OK;
    }
    // Reported whatever the cause: hosts expect it after the cause's own report.
    DB_ErrHandler(0, kErrorKindNone, "Archiving logs requires 'ARCHIVE' style transaction logging");
    switch (result) {
    case DB_NUM_I_CIRCULAR_LOG:
        DB_TraceExt("QRTLN_InitArchiveLogs(): Incremental backup is not supported. Exiting ...");
        return DB_NUM_I_CIRCULAR_LOG;
    case DB_NUM_I_NOTRANSLOGGING:
        DB_TraceExt("QRTLN_InitArchiveLogs(): There is no transaction logging enabled.");
        return DB_NUM_I_NOTRANSLOGGING;
    default:
        DB_TraceExt("Initialization of archive logs failed");
        return DB_NUM_E_FAILED;
    }
}

int QRTLN_GetArchiveFile(char* cpFile, char* cpBackupDirectory, BOOL bFirstPass,
                         DWORD* pdwLogNumber, UNIVERSALNOTEID* LogId, BOOL* bpActiveLogBackup) {
    const int result = getArchiveLog(cpFile, cpBackupDirectory, bFirstPass, pdwLogNumber, LogId,
                                     bpActiveLogBackup);
    constexpr std::pair<int, const char*> kNames[] = {
        {DB_NUM_I_OK, "DB_NUM_I_OK"},
        {DB_NUM_I_COMPLETE, "DB_NUM_I_COMPLETE"},
        {DB_NUM_I_CIRCULAR_LOG, "DB_NUM_I_CIRCULAR_LOG"},
        {DB_NUM_I_NOTRANSLOGGING, "DB_NUM_I_NOTRANSLOGGING"}};
    for (const auto& [answer, name] : kNames) {
        if (result == answer) {
            DB_TraceExt("QRTLN_GetArchiveFile: return %s", name);
            return result;
        }
    }
    DB_TraceExt("QRTLN_GetArchiveFile: return DB_NUM_E_FAILED");
    DB_TraceExt("Initialization of archive logs failed");
    return DB_NUM_E_FAILED;
}
