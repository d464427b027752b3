#include "qrt_lotus_notes/qrtln_n/backup_copy.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <sys/stat.h>

#include "common/bounded_text.h"
#include "notes_api/notes_api.h"
#include "qrt_lotus_notes/qrtln_n/copy_passes.h"
#include "qrt_lotus_notes/qrtln_n/copy_path.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_n/guards.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"

namespace {

// The server hears how far the copy has got once in so many chunks.
constexpr DWORD kChunksPerHighWaterMark = 100;

struct ChangeInfoSize {
    DWORD low = 0;
    DWORD high = 0;
};

const char* versionName(WORD build) {
    constexpr struct {
        WORD firstBuild;
        const char* name;
    } versions[] = {{400, "9.0"}, {254, "7.0"}, {194, "6.5"}, {190, "6.0"}, {166, "5.0"}};
    for (const auto& version : versions) {
        if (build >= version.firstBuild) {
            return version.name;
        }
    }
    return "< 5.0 !";
}

bool reportFileError(int error) {
    DB_ErrHandler(0, kErrorKindNone, "%s", getSysMsg(static_cast<unsigned>(error)));
    return false;
}

bool reportNotesFailure(int status) {
    reportNotesError(status);
    return false;
}

// Cuts a path at its last "/". REQUIRES: it has one.
void cutFileName(char* path) {
    *std::strrchr(path, kDelimiter) = '\0';
}

// Traces the release that wrote the database, for the first database of the process.
void traceBuildVersion(const char* caller, DBHANDLE hDB, BOOL& iFirstRun) {
    if (!iFirstRun) {
        return;
    }
    WORD major_build_num = 0;
    if (notes_api.NSFDbGetBuildVersion(hDB, &major_build_num) == kNotesNoError) {
        DB_TraceExt("%s(): Database major build number [%d] version [%s]", caller, major_build_num,
                    versionName(major_build_num));
    }
    iFirstRun = FALSE;
}

// Asks how the database is logged, says it and writes the identity of a logged one to *pDbIID. A
// template need not be logged and counts as if it were. Not to know it (`sayUnknown` tells why) is
// no reason not to save the database: it counts as not logged.
bool decideLogging(const char* caller, DBHANDLE hDB, const char* file, UNIVERSALNOTEID* pDbIID,
                   void (*sayUnknown)(const char* reason)) {
    DatabaseLogInfo info;
    if (const STATUS status = info.read(hDB); status != kNotesNoError) {
        sayUnknown(getLotusNotesApiError(status, FALSE));
        info.bLogged = FALSE;
    }
    if (info.bLogged) {
        DB_LogExt("%s: Database [%s] is logged, DBIID [%08lX]", caller, getUTF8FileName(file),
                  foldedId(info.DbIID));
        *pDbIID = info.DbIID;
        return true;
    }
    if (isFileNotesNTF(file)) {
        DB_TraceExt("%s(): Template %s must not be logged.", caller, getUTF8FileName(file));
        return true;
    }
    DB_TraceExt("%s(): Database [%s] is not logged. Resulting backup file may not be recoverable!",
                caller, getUTF8FileName(file));
    return false;
}

// Reads one chunk. What the server cuts off the file during the copy is recorded like every other
// change: zeros stand for it, never what was in the buffer before.
int readChunk(FILE* source, char* buffer, DWORD count) {
    std::memset(buffer, 0, count);
    errno = 0; // the end of the file sets none, and that is what a short read returns
    const int error = SysFileRead(source, buffer, count);
    return error == 0 && std::ferror(source) ? EIO : error;
}

// One copy in its course: where it reads and writes, and how far it has got.
struct DatabaseCopy {
    DBHANDLE hDB;
    DHANDLE hBackupContext;
    FILE* srcfd;
    FILE* dstfd;
    char* buffer;
    CopyPosition position;

    // Returns 0 or an error number; also 0 when it was stopped.
    int copyPass(DWORD dwBytesLeft) {
        DWORD dwReadCount = 0;
        while (dwBytesLeft != 0 && !stopRequested()) {
            const DWORD chunk = std::min(dwBytesLeft, QRTLN_BUFFER_SIZE);
            if (const int error = readChunk(srcfd, buffer, chunk); error != 0) {
                // Not run by a test: a read that fails, in the long form of tests/torture alone.
                return error;
            }
            position.advance(chunk);
            if (++dwReadCount % kChunksPerHighWaterMark == 0) {
                setHighWaterMark();
            }
            if (const int error = SysFileWrite(dstfd, buffer, chunk); error != 0) {
                return error;
            }
            dwBytesLeft -= chunk;
        }
        return 0;
    }

    // Without the mark the server only records more changes than it needs to: its result does not
    // count.
    void setHighWaterMark() const {
        DB_TraceExt("PrepareOpenDbForBackup(): Call NSFBackupSetHighWaterMark [%ld]",
                    static_cast<long>(std::uint64_t{position.high()} << 32 | position.low()));
        notes_api.NSFBackupSetHighWaterMark(hDB, hBackupContext, position.low(), position.high());
    }
};

// Copies dwFileSizeHigh * 2^32 + dwFileSizeLow bytes. Returns 0, an error number, or 1009 when
// stopped.
int copyDatabase(DatabaseCopy& copy, DWORD dwFileSizeLow, DWORD dwFileSizeHigh) {
    CopyPasses passes(dwFileSizeLow, dwFileSizeHigh);
    DWORD pass = passes.first();
    DB_TraceExt("PrepareOpenDbForBackup(): File size == %ld", static_cast<long>(pass));
    int status = 0;
    while (pass != 0 && status == 0 && !stopRequested()) {
        status = copy.copyPass(pass);
        pass = passes.next();
    }
    if (stopRequested()) {
        DB_TraceExt(
            "PrepareOpenDbForBackup(): copy in a loop terminated due to global termination flag");
        return DB_NUM_E_TERMINATED;
    }
    DB_TraceExt("PrepareOpenDbForBackup(): copy in a loop done");
    return status;
}

// Copies the database and closes the copy: a full disk may show only then. Returns as copyDatabase.
int copyAndClose(DatabaseCopy& course, TemporaryCopyGuard& copy, DWORD dwFileSizeLow,
                 DWORD dwFileSizeHigh) {
    const int status = copyDatabase(course, dwFileSizeLow, dwFileSizeHigh);
    const int closeError = copy.closeStream();
    return status != 0 ? status : closeError;
}

// Ends the recording of changes and asks for their size. A backup whose recording did not end has
// no defined state: the failure of either call fails the preparation. Returns the first failure.
STATUS stopRecording(const char* caller, DBHANDLE hDB, DHANDLE hBackupContext,
                     ChangeInfoSize& size) {
    STATUS status = notes_api.NSFBackupStop(hDB, hBackupContext);
    if (status != kNotesNoError) {
        DB_TraceExt("%s(): NSFBackupStop LN C API call failed", caller);
        return status;
    }
    status = notes_api.NSFBackupGetChangeInfoSize(hDB, hBackupContext, 0, &size.low, &size.high);
    if (status != kNotesNoError) {
        DB_TraceExt("%s(): NSFBackupGetChangeInfoSize LN C API call failed", caller);
        return status;
    }
    DB_TraceExt("%s(): change information size low [%lu] high [%lu]", caller,
                static_cast<unsigned long>(size.low), static_cast<unsigned long>(size.high));
    return kNotesNoError;
}

// Fetches the recorded changes and applies them until an empty fetch, which is applied too. Returns
// the first failure.
STATUS applyChanges(const char* caller, DBHANDLE hDB, DHANDLE hBackupContext, DHANDLE hApplyContext,
                    BYTE* buffer) {
    DWORD dwFilledSize = 0;
    do {
        dwFilledSize = 0;
        STATUS status = notes_api.NSFBackupGetNextChangeInfo(hDB, hBackupContext, 0, buffer,
                                                             QRTLN_BUFFER_SIZE, &dwFilledSize);
        if (status != kNotesNoError) {
            DB_TraceExt("%s(): NSFBackupGetNextChangeInfo LN C API call failed", caller);
            return status;
        }
        status = notes_api.NSFBackupApplyNextChangeInfo(hApplyContext, 0, buffer, dwFilledSize);
        if (status != kNotesNoError) {
            DB_TraceExt("%s(): NSFBackupApplyNextChangeInfo LN C API call failed", caller);
            return status;
        }
    } while (dwFilledSize != 0);
    return kNotesNoError;
}

// Applies the recorded changes to the file of that LMBCS path. Returns the first failure. What
// ending it answers is not a failure of the interface, but may mean that the copy is not whole:
// hosts find the log line and do not count the item as saved.
STATUS applyRecordedChanges(const char* caller, DBHANDLE hDB, DHANDLE hBackupContext,
                            ApplyContextGuard& apply, char* lmbcsPath, const ChangeInfoSize& size,
                            BYTE* buffer) {
    const STATUS status = apply.start(lmbcsPath, size.low, size.high);
    if (status != kNotesNoError) {
        DB_TraceExt("%s(): NSFBackupStartApplyChangeInfo LN C API call failed", caller);
        return status;
    }
    if (const STATUS failed = applyChanges(caller, hDB, hBackupContext, apply.handle(), buffer);
        failed != kNotesNoError) {
        return failed;
    }
    if (const STATUS ended = apply.end(kBackupComplete); ended != kNotesNoError) {
        DB_LogExt("%s(): NSFBackupEndApplyChangeInfo LN C API call failed: %s", caller,
                  getLotusNotesApiError(ended, FALSE));
    }
    return kNotesNoError;
}

// Starts the backup; a backup that somebody left on the database is ended, so that the next try
// finds it free. Returns the status.
STATUS startBackup(const char* caller, BackupContextGuard& context, DWORD* sizeLow,
                   DWORD* sizeHigh) {
    const STATUS status = context.start(sizeLow, sizeHigh);
    if (isStatus(status, kNotesBackupInProgress)) {
        context.end(kBackupAbort);
    }
    if (status != kNotesNoError) {
        DB_TraceExt("%s(): NSFBackupStart call failed", caller);
    }
    return status;
}

// Opens the source and the target of the copy; reports the step that failed.
bool openStreams(const char* original, char* directory, StreamGuard& source,
                 TemporaryCopyGuard& copy) {
    if (const int error = SysFileOpenRead(original, source.slot()); error != 0) {
        DB_TraceExt("PrepareOpenDbForBackup(): SysFileOpenRead call failed: %s",
                    getSysMsg(static_cast<unsigned>(error)));
        return reportFileError(error);
    }
    if (const int error = SysFileSeek(source.stream(), 0, 0); error != 0) {
        // Not run by a test: a file that was just opened can be sought.
        DB_TraceExt("PrepareOpenDbForBackup(): SysFileSeek call failed: %s",
                    getSysMsg(static_cast<unsigned>(error)));
        return reportFileError(error);
    }
    if (const int error = SysFileCreateDirectory(directory); error != 0) {
        DB_TraceExt("PrepareOpenDbForBackup(): SysFileCreateDirectory call failed: %s",
                    getSysMsg(static_cast<unsigned>(error)));
        return reportFileError(error);
    }
    if (const int error = copy.create(); error != 0) {
        DB_TraceExt("PrepareOpenDbForBackup(): SysFileCreate call failed: %s",
                    getSysMsg(static_cast<unsigned>(error)));
        return reportFileError(error);
    }
    return true;
}

// Says of a file that it has less than is to be copied. It may be damaged, or the server rounds
// sizes up: what is there is copied, zeros stand for the rest, and hosts find this line.
void tellShortFile(const char* original, FILE* source, DWORD sizeLow, DWORD sizeHigh) {
    const std::uint64_t size = std::uint64_t{sizeHigh} << 32 | sizeLow;
    struct stat info;
    if (fstat(fileno(source), &info) == 0 && static_cast<std::uint64_t>(info.st_size) < size) {
        DB_LogExt("Database file [%s] is shorter than the size to copy", getUTF8FileName(original));
    }
}

// Allocates and locks the working buffer; traces or logs and reports the step that failed.
bool allocateBuffer(BufferGuard& buffer, void (*say)(const char* step)) {
    if (const STATUS status = buffer.allocate(); status != kNotesNoError) {
        say("OSMemAlloc");
        return reportNotesFailure(status);
    }
    if (buffer.data() == nullptr) {
        say("OSLockObject");
        DB_ErrHandler(0, kErrorKindNone, "cannot lock the working buffer");
        return false;
    }
    return true;
}

// Opens what the copy needs and copies the database as it lies there, with what the server writes
// meanwhile half in it. Reports the step that failed; the guards undo what was done.
bool copyToTemporaryDirectory(DBHANDLE hDB, DHANDLE hBackupContext, const char* original,
                              char* directory, StreamGuard& source, TemporaryCopyGuard& copy,
                              BufferGuard& buffer, DWORD dwFileSizeLow, DWORD dwFileSizeHigh) {
    if (!openStreams(original, directory, source, copy) ||
        !allocateBuffer(buffer, [](const char* step) {
            DB_TraceExt("PrepareOpenDbForBackup(): %s call failed", step);
        })) {
        return false;
    }
    tellShortFile(original, source.stream(), dwFileSizeLow, dwFileSizeHigh);
    DatabaseCopy course = {
        hDB, hBackupContext, source.stream(), copy.stream(), reinterpret_cast<char*>(buffer.data()),
        {}};
    if (const int status = copyAndClose(course, copy, dwFileSizeLow, dwFileSizeHigh); status != 0) {
        DB_TraceExt("PrepareOpenDbForBackup(): Copying file to temporary directory failed");
        // An error number is looked up like a status of the server: readers know the texts.
        reportNotesError(status);
        return false;
    }
    DB_TraceExt("PrepareOpenDbForBackup(): File %s copied to temporary directory",
                getUTF8FileName(original));
    return true;
}

// The record of the item in progress while it is prepared in place: cleared again unless kept.
class CurrentBackupRecord {
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
    CurrentBackupRecord(const CurrentBackupRecord&) = delete;
    CurrentBackupRecord& operator=(const CurrentBackupRecord&) = delete;
    void keep() { m_kept = true; }

  private:
    bool m_kept = false;
};

int reportInvalidOpenDbPath(const char* file) {
    DB_TraceExt("PrepareOpenDbForBackup(): Getting database file name failure for database [%s].",
                file);
    DB_ErrHandler(0, kErrorKindNone, "PrepareOpenDbForBackup(): File full path [%s] is not valid.",
                  getUTF8FileName(file));
    return DB_NUM_E_FAILED;
}

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

int PrepareOpenDbForBackup(const char* cpOriginalFile, char* cpBackupDirectory,
                           UNIVERSALNOTEID* pDbIID) {
    static BOOL iFirstRun = TRUE;
    constexpr char kName[] = "PrepareOpenDbForBackup";

    DB_TraceExt("PrepareOpenDbForBackup(): original file [%s]", cpOriginalFile);
    *pDbIID = {};
    if (!g_sQRTLN_Global.bNotesInitialized) {
        reportRuntimeNotInitialized();
        return DB_NUM_E_FAILED;
    }

    // 1. The place of the copy, and both paths as the server takes them.
    char szBackupFile[kPathSize];
    char szTmpFile[kPathSize];
    char szLmbcsCopy[kPathSize];
    if (*g_sQRTLN_Global.szTmpDir == '\0') {
        DB_ErrHandler(0, kErrorKindNone,
                      "PrepareOpenDbForBackup(): there is no TMP_DIR to put a copy of [%s] in",
                      getUTF8FileName(cpOriginalFile));
        return DB_NUM_E_FAILED;
    }
    if (!buildCopyPath(cpOriginalFile, szBackupFile) || isSameFile(cpOriginalFile, szBackupFile) ||
        !translateToLmbcs(cpOriginalFile, szTmpFile) ||
        !translateToLmbcs(szBackupFile, szLmbcsCopy)) {
        return reportInvalidOpenDbPath(cpOriginalFile);
    }
    const char* szRelativeFileName = relativeDatabaseName(cpOriginalFile);
    copyText(cpBackupDirectory, kPathSize, szBackupFile);
    cutFileName(cpBackupDirectory);
    DB_TraceExt("PrepareOpenDbForBackup(): relative file [%s], backup file [%s]",
                szRelativeFileName, szBackupFile);

    // 2. The database.
    DatabaseGuard database;
    if (const STATUS status = database.open(szTmpFile); status != kNotesNoError) {
        DB_TraceExt("Notes API NSFDbOpen() failure on file: %s", getUTF8FileName(cpOriginalFile));
        reportNotesError(status);
        return DB_NUM_E_FAILED;
    }
    const DBHANDLE hDB = database.handle();
    traceBuildVersion(kName, hDB, iFirstRun);

    // 3. The backup: from here on the server records what it changes.
    BackupContextGuard context(hDB);
    DWORD dwFileSizeLow = 0;
    DWORD dwFileSizeHigh = 0;
    if (const STATUS status = startBackup(kName, context, &dwFileSizeLow, &dwFileSizeHigh);
        status != kNotesNoError) {
        reportNotesError(status);
        return DB_NUM_E_FAILED;
    }

    // 4. How it is logged.
    const bool logged = decideLogging(kName, hDB, cpOriginalFile, pDbIID, [](const char* reason) {
        DB_TraceExt("PrepareOpenDbForBackup(): NSFDbGetLogInfo failed: %s ", reason);
    });

    // 5. The copy.
    StreamGuard source;
    TemporaryCopyGuard copy(szBackupFile);
    BufferGuard buffer(BufferGuard::Release::unlockAndFree);
    if (!copyToTemporaryDirectory(hDB, context.handle(), cpOriginalFile, cpBackupDirectory, source,
                                  copy, buffer, dwFileSizeLow, dwFileSizeHigh)) {
        return DB_NUM_E_FAILED;
    }

    // 6. What the server changed meanwhile, applied to the copy.
    ApplyContextGuard apply;
    ChangeInfoSize size;
    STATUS notesStatus = stopRecording(kName, hDB, context.handle(), size);
    if (notesStatus == kNotesNoError) {
        notesStatus = applyRecordedChanges(kName, hDB, context.handle(), apply, szLmbcsCopy, size,
                                           buffer.data());
    }
    if (notesStatus != kNotesNoError) {
        reportNotesError(notesStatus);
        return DB_NUM_E_FAILED;
    }

    // 7. Everything is in the copy: what the ending calls answer does not count.
    context.end(kBackupComplete);
    buffer.free();
    copy.keep();
    source.close();
    database.close();
    DB_TraceExt("PrepareOpenDbForBackup(): Preparing database completed successfully");
    DB_TraceExt("PrepareOpenDbForBackup(): Backup file %s created", getUTF8FileName(szBackupFile));
    return logged ? DB_NUM_I_OK : DB_NUM_W_WARNING;
}

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
