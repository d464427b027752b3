// A database that is known to be closed is backed up where it lies: the server applies what it
// recorded to the database itself, and database and backup stay open until CloseDbBackup.
#include <cstring>

#include "common/bounded_text.h"
#include "common/non_copyable.h"
#include "notes_api/notes_api.h"
#include "qrt_lotus_notes/qrtln_n/backup_copy.h"
#include "qrt_lotus_notes/qrtln_n/backup_steps.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_n/guards.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"

namespace {

// The record of the item in progress while it is prepared in place: cleared again unless kept.
class CurrentBackupRecord : NonCopyable {
  public:
    CurrentBackupRecord(DBHANDLE hDB, DHANDLE hBackupContext) {
        g_sQRTLN_Global.hCurrDB = hDB;
        g_sQRTLN_Global.hCurrBackupContext = hBackupContext;
    }
    ~CurrentBackupRecord() {
        if (!m_kept) {
            g_sQRTLN_Global.hCurrDB = 0;
        }
    }
    void keep() { m_kept = true; }

  private:
    bool m_kept = false;
};

int reportInvalidDbPath(const char* file) {
    DB_TraceExt("PrepareDbForBackup(): getting database file name failure for database %s.", file);
    DB_ErrHandler(0, kErrorKindNone, "PrepareDbForBackup(): file full path %s is not valid.",
                  getUTF8FileName(file));
    return DB_NUM_E_FAILED;
}

// Answers a failed open in PrepareDbForBackup. Only a "not a database" of the open itself makes a
// plain file of it; one that stands for "no such file" of an existing file is a failure.
int answerFailedOpen(const char* file, STATUS status) {
    DB_TraceExt("Notes API NSFDbOpen() failure on file: %s", getUTF8FileName(file));
    DB_TraceExt("PrepareDbForBackup(): NSFDbOpen( %s, .. ) returned %d", getUTF8FileName(file),
                status);
    if (isStatus(status, kNotesNotADatabase)) {
        DB_LogExt("File %s is not a database.", getUTF8FileName(file));
        return DB_NUM_I_OK;
    }
    if (isStatus(status, kNotesNoSuchFile) && SysFileExists(file)) {
        DB_TraceExt("PrepareDbForBackup(): NSFDbOpen( %s, .. ) returned %d ERR_NOEXIST but file "
                    "exists -> set ERR_NOT_NSF",
                    getUTF8FileName(file), status);
        status = kNotesNotADatabase;
    }
    DB_ErrHandler(0, kErrorKindNone, "%s [%s]", getLotusNotesApiError(status, TRUE),
                  getUTF8FileName(file));
    return DB_NUM_E_FAILED;
}

} // namespace

int PrepareDbForBackup(const char* cpOriginalFile, char* cpBackupDirectory,
                       UNIVERSALNOTEID* pDbIID) {
    static BOOL iFirstRun = TRUE;
    constexpr char kName[] = "PrepareDbForBackup";

    g_sQRTLN_Global.hCurrDB = 0;
    *pDbIID = {};
    if (!g_sQRTLN_Global.bNotesInitialized) {
        reportRuntimeNotInitialized();
        return DB_NUM_E_FAILED;
    }

    // 1. Its directory, and the path as the server takes it.
    char szTmpFile[kPathSize];
    if (std::strrchr(cpOriginalFile, kDelimiter) == nullptr ||
        !copyText(cpBackupDirectory, kPathSize, cpOriginalFile) ||
        !translateToLmbcs(cpOriginalFile, szTmpFile)) {
        return reportInvalidDbPath(cpOriginalFile);
    }
    cutFileName(cpBackupDirectory);
    DB_TraceExt("PrepareDbForBackup(): backup directory: [%s]", cpBackupDirectory);

    // The buffer is freed after the database is closed: it stands first.
    BufferGuard buffer(BufferGuard::Release::freeOnly);

    // 2. The database.
    DatabaseGuard database;
    if (const STATUS status = database.open(szTmpFile); status != kNotesNoError) {
        return answerFailedOpen(cpOriginalFile, status);
    }
    const DBHANDLE hDB = database.handle();
    traceBuildVersion(kName, hDB, iFirstRun);

    // 3. The backup.
    DB_TraceExt("PrepareDbForBackup(): Starting BACKUP operation ...");
    BackupContextGuard context(hDB);
    DWORD dwFileSizeLow = 0;
    DWORD dwFileSizeHigh = 0;
    if (const STATUS status = startBackup(kName, context, &dwFileSizeLow, &dwFileSizeHigh);
        status != kNotesNoError) {
        database.close();
        if (isStatus(status, kNotesNotADatabase)) {
            DB_LogExt("NSFBackupStart: File %s is not a database.",
                      getUTF8FileName(cpOriginalFile));
            return DB_NUM_I_OK;
        }
        reportNotesError(status);
        return DB_NUM_E_FAILED;
    }
    if (!allocateBuffer(buffer, [](const char* step) {
            DB_LogExt("PrepareDbForBackup(): %s call failed", step);
        })) {
        // Its result does not count: the backup has failed.
        notes_api.NSFBackupStop(hDB, context.handle());
        return DB_NUM_E_FAILED;
    }

    // 4. How it is logged.
    const bool logged = decideLogging(kName, hDB, cpOriginalFile, pDbIID, [](const char* reason) {
        DB_LogExt("PrepareDbForBackup(): NSFDbGetLogInfo failed: %s", reason);
    });

    // 5. The recorded changes, applied to the database itself.
    CurrentBackupRecord record(hDB, context.handle());
    DB_TraceExt("PrepareDbForBackup(): Applying recorded before image information.");
    ApplyContextGuard apply;
    ChangeInfoSize size;
    STATUS status = stopRecording(kName, hDB, context.handle(), size);
    if (status == kNotesNoError) {
        status = applyRecordedChanges(kName, hDB, context.handle(), apply, szTmpFile, size,
                                      buffer.data());
    }
    if (status != kNotesNoError) {
        reportNotesError(status);
        return DB_NUM_E_FAILED;
    }

    // 6. Database and backup stay open until CloseDbBackup.
    buffer.free();
    context.release();
    database.release();
    record.keep();
    return logged ? DB_NUM_I_OK : DB_NUM_W_WARNING;
}

int CloseDbBackup(const char* cpFile) {
    DB_TraceExt("CloseDbBackup(): Closing BACKUP operation (NSFBackupEnd(), NSFDbClose(), ...");
    if (!isFileNotesNSF(cpFile)) {
        DB_TraceExt("CloseDbBackup(): file is not LN Database (*.nsf). Returning ...");
        return DB_NUM_I_OK;
    }
    if (g_sQRTLN_Global.hCurrDB == 0 || !g_sQRTLN_Global.bNotesInitialized) {
        DB_TraceExt("CloseDbBackup(): Operation has been terminated. Exiting ...");
        return DB_NUM_I_OK;
    }

    // The handles stay in the record, as hosts find them; the next preparation clears them.
    const STATUS endStatus = notes_api.NSFBackupEnd(
        g_sQRTLN_Global.hCurrDB, g_sQRTLN_Global.hCurrBackupContext, kBackupComplete);
    if (endStatus != kNotesNoError) {
        DB_TraceExt("CloseDbBackup(): NSFBackupEnd() call FAILED: %s.",
                    getLotusNotesApiError(endStatus, FALSE));
    }
    const STATUS closeStatus = notes_api.NSFDbClose(g_sQRTLN_Global.hCurrDB);
    if (closeStatus != kNotesNoError) {
        DB_TraceExt("CloseDbBackup(): NSFDbClose() call FAILED: %s.",
                    getLotusNotesApiError(closeStatus, FALSE));
    }
    if (endStatus == kNotesNoError && closeStatus == kNotesNoError) {
        DB_TraceExt("CloseDbBackup(): Closing database backup completed successfully !!!");
    }
    return DB_NUM_I_OK;
}
