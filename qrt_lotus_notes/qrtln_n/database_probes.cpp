#include "qrt_lotus_notes/qrtln_n/database_probes.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "common/bounded_text.h"
#include "notes_api/notes_api.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_n/guards.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "qrt_lotus_notes/qrtln_n/notes_time.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"

namespace {

// Every class of note.
constexpr WORD kAllNoteClasses = 0x7FFF;
// Converts the time for the server, by way of text as its settings have it; shownText receives how
// the server writes it. Returns false (logged) when the server does not take it.
bool convertSince(time_t cal_time, TIMEDATE& since, TimeText& shownText) {
    const INTLFORMAT intl = dayMonthYearSettings();
    if (!convertTime("isNotesDbModified", intl, cal_time, since)) {
        return false;
    }
    WORD length = 0;
    const STATUS status = notes_api.ConvertTIMEDATEToText(&intl, &kDateAndTime, &since, shownText,
                                                          sizeof shownText - 1, &length);
    if (status != kNotesNoError) {
        return false;
    }
    shownText[std::min<std::size_t>(length, sizeof shownText - 1)] = '\0';
    DB_TraceExt("date: %s", shownText);
    return true;
}

// Asks the open database for what changed since then, and logs the answer.
BOOL hasModifiedNotes(DBHANDLE hDb, const char* file, const TIMEDATE& since,
                      const TimeText& sinceText) {
    TIMEDATE until = {};
    DHANDLE idtable = 0;
    // The status is taken whole, with its flags, as clients know this probe's answers.
    const STATUS status =
        notes_api.NSFDbGetModifiedNoteTable(hDb, kAllNoteClasses, since, &until, &idtable);
    if (status == kNotesNoError) {
        const DWORD entries = notes_api.IDEntries(idtable);
        DB_LogExt("Src Db: %s was modified since %s", getUTF8FileName(file), sinceText);
        DB_LogExt("Src Db: %s entries %d", getUTF8FileName(file), static_cast<int>(entries));
        notes_api.IDDestroyTable(idtable);
        return TRUE;
    }
    if (status == kNotesNoNoteModified) {
        DB_LogExt("Src Db: No Documents in %s have been modified since %s.", getUTF8FileName(file),
                  sinceText);
    } else {
        DB_LogExt("Src Db: %s NSFDbGetModifiedNoteTable() returned error %0x (%d): %s",
                  getUTF8FileName(file), static_cast<unsigned>(status), status,
                  getLotusNotesApiError(status, FALSE));
    }
    return FALSE;
}

// Sets or removes a lock on the whole file, without waiting. Returns 0 or an error number.
int lockWholeFile(int fd, short type) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLK, &lock) == 0 ? 0 : errno;
}

int reportInvalidPath(const char* file) {
    DB_ErrHandler(0, kErrorKindNone, "isDatabaseLogged(): File full path [%s] is not valid.",
                  getUTF8FileName(file));
    return DB_NUM_E_FAILED;
}

// How the server logs, for a database that is logged. Answers as isDatabaseLogged.
int readServerStyle(DatabaseGuard& database, BOOL* bpLogged, DB_LOGGING_STYLE* ep_LoggingStyle) {
    WORD wLogType = 0;
    const STATUS status = notes_api.NSFGetTransLogStyle(&wLogType);
    if (status != kNotesNoError) {
        reportNotesError(status);
        DB_TraceExt("isDatabaseLogged(): NSFGetTransLogStyle failed: %s ",
                    getLotusNotesApiError(status, FALSE));
        if (!isStatus(status, kNotesLoggingNotInEffect)) {
            return DB_NUM_E_FAILED;
        }
        // By contract the handle stays open here: the database stays in use while the process
        // lives.
        database.release();
        *bpLogged = FALSE;
        return DB_NUM_I_OK;
    }
    switch (wLogType) {
    case kLogStyleArchive:
        *ep_LoggingStyle = DB_LOGGING_STYLE_ARCH;
        return DB_NUM_I_OK;
    case kLogStyleCircular:
        *ep_LoggingStyle = DB_LOGGING_STYLE_CIRC;
        return DB_NUM_I_OK;
    default:
        // Linear logging too. What is reported is the text of the call's own status, which is that
        // of no error: hosts compare it.
        reportNotesError(status);
        DB_TraceExt("isDatabaseLogged(): NSFGetTransLogStyle failed: Could not determine logging "
                    "style");
        return DB_NUM_E_FAILED;
    }
}

} // namespace

int isNotesDbOpen(const char* cpNotesDbFile, BOOL* bpDbIsOpen) {
    DB_TraceExt("isNotesDbOpen: DBfile [%s]", getUTF8FileName(cpNotesDbFile));
    *bpDbIsOpen = FALSE;

    StreamGuard file;
    if (const int error = SysFileOpen(cpNotesDbFile, file.slot()); error != 0) {
        DB_ErrHandler(static_cast<unsigned long>(error), kErrorKindApi, "%s",
                      getUTF8FileName(cpNotesDbFile));
        DB_TraceExt("Opening file %s failure", getUTF8FileName(cpNotesDbFile));
        return DB_NUM_E_FAILED;
    }

    const int fd = fileno(file.stream());
    const int error = lockWholeFile(fd, F_WRLCK);
    if (error == 0) {
        DB_TraceExt("isNotesDbOpen: DBfile [%s] is not locked", getUTF8FileName(cpNotesDbFile));
        if (lockWholeFile(fd, F_UNLCK) != 0) {
            // Not run by a test: libc and the kernel do not fail so with these arguments.
            DB_TraceExt("Unlocking file %s failure", getUTF8FileName(cpNotesDbFile));
        }
        return DB_NUM_I_OK;
    }
    DB_TraceExt("isNotesDbOpen: DBfile [%s] is locked errno %d", getUTF8FileName(cpNotesDbFile),
                error);
    if (error == EACCES || error == EAGAIN) {
        *bpDbIsOpen = TRUE;
        return DB_NUM_I_OK;
    }
    // Not run by a test: libc and the kernel do not fail so with these arguments.
    DB_ErrHandler(static_cast<unsigned long>(error), kErrorKindErrno,
                  "file locking returned unexpected error");
    DB_TraceExt("Locking file %s failure", getUTF8FileName(cpNotesDbFile));
    return DB_NUM_E_FAILED;
}

BOOL isNotesDbModified(const char* cpNotesDbFile, time_t cal_time) {
    if (!g_sQRTLN_Global.bNotesInitialized) {
        reportRuntimeNotInitialized();
        return FALSE;
    }
    char szTmpFile[1024];
    if (!translateToLmbcs(cpNotesDbFile, szTmpFile)) {
        DB_LogExt("Src Db: %s has a name that is not valid for the server",
                  getUTF8FileName(cpNotesDbFile));
        return FALSE;
    }
    TIMEDATE since = {};
    TimeText sinceText = "";
    if (!convertSince(cal_time, since, sinceText)) {
        return FALSE;
    }
    logOtherMoment(cpNotesDbFile, since, cal_time);

    DatabaseGuard database;
    if (const STATUS status = database.open(szTmpFile); status != kNotesNoError) {
        DB_LogExt("Src Db: %s got error %0x (%d): %s", getUTF8FileName(cpNotesDbFile),
                  static_cast<unsigned>(status), status, getLotusNotesApiError(status, FALSE));
        return FALSE;
    }
    const BOOL modified = hasModifiedNotes(database.handle(), cpNotesDbFile, since, sinceText);
    database.close();
    DB_TraceExt("isNotesDbModified: return %d", modified);
    return modified;
}

int isDatabaseLogged(const char* cpFile, BOOL* bpLogged, DB_LOGGING_STYLE* ep_LoggingStyle,
                     UNIVERSALNOTEID* pDbIID) {
    *pDbIID = {};
    DB_TraceExt("isDatabaseLogged(): call NSFDbOpen( %s, ..)", getUTF8FileName(cpFile));
    if (!g_sQRTLN_Global.bNotesInitialized) {
        reportRuntimeNotInitialized();
        return DB_NUM_E_FAILED;
    }
    char szTmpFile[kPathSize];
    if (!translateToLmbcs(cpFile, szTmpFile)) {
        return reportInvalidPath(cpFile);
    }

    DatabaseGuard database;
    if (const STATUS status = database.open(szTmpFile); status != kNotesNoError) {
        DB_TraceExt("Notes API NSFDbOpen() failure on file: %s", getUTF8FileName(cpFile));
        reportNotesError(status);
        return DB_NUM_E_FAILED;
    }

    // Whether the database is logged.
    DatabaseLogInfo info;
    if (const STATUS status = info.read(database.handle()); status != kNotesNoError) {
        DB_TraceExt("isDatabaseLogged(): NSFDbGetLogInfo failed: %s ",
                    getLotusNotesApiError(status, FALSE));
        return DB_NUM_E_FAILED;
    }
    if (!info.bLogged) {
        *bpLogged = FALSE;
        return DB_NUM_I_OK;
    }
    *bpLogged = TRUE;
    *pDbIID = info.DbIID;
    DB_TraceExt("isDatabaseLogged: Database [%s] is logged, DBIID %s", getUTF8FileName(cpFile),
                DbIIdText(info.DbIID).szText);

    return readServerStyle(database, bpLogged, ep_LoggingStyle);
}

BOOL isBackupNeeded(const char* cpFile, DWORD dwComfortSpan, BOOL* bpUnanswered) {
    *bpUnanswered = TRUE;
    // The native path, untranslated; the call takes a text that it may write to.
    char szFile[kPathSize];
    if (!isNotesApiLoaded() || !copyText(szFile, cpFile)) {
        DB_TraceExt("isBackupNeeded(): no answer for [%s]", cpFile);
        return FALSE;
    }
    DWORD dwBackupNeeded = 0;
    // The status is taken whole, with its flags, as clients know this probe's answers.
    const STATUS status = notes_api.NSFIsNewBackupNeeded(szFile, dwComfortSpan, &dwBackupNeeded);
    *bpUnanswered = status != kNotesNoError && status != kNotesNotBackedUp;
    if (status == kNotesNotBackedUp) {
        DB_TraceExt("isBackupNeeded(): Database HAS NOT BEEN BACKED UP yet on this "
                    "server/instance of the log.");
        return TRUE;
    }
    if (status != kNotesNoError) {
        DB_LogExt("isBackupNeeded(): NSFIsNewBackupNeeded failed: %s",
                  getLotusNotesApiError(status, FALSE));
        return FALSE;
    }
    if (dwComfortSpan == 0) {
        // Without a span only a database that was never backed up needs one, whatever the distance.
        DB_TraceExt("isBackupNeeded(): Span of log is %d", static_cast<int>(dwBackupNeeded));
        return FALSE;
    }
    DB_TraceExt(dwBackupNeeded != 0 ? "isBackupNeeded(): Database backup NEEDED."
                                    : "isBackupNeeded(): Database backup NOT NEEDED.");
    return dwBackupNeeded != 0;
}
