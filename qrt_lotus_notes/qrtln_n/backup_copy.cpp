#include "qrt_lotus_notes/qrtln_n/backup_copy.h"

#include <cerrno>
#include <cstdint>
#include <sys/stat.h>

#include "common/bounded_text.h"
#include "notes_api/notes_api.h"
#include "qrt_lotus_notes/qrtln_n/backup_steps.h"
#include "qrt_lotus_notes/qrtln_n/copy_loop.h"
#include "qrt_lotus_notes/qrtln_n/copy_path.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_n/guards.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"

namespace {

bool reportFileError(const char* step, int error) {
    DB_TraceExt("PrepareOpenDbForBackup(): %s call failed: %s", step,
                getSysMsg(static_cast<unsigned>(error)));
    DB_ErrHandler(0, kErrorKindNone, "%s", getSysMsg(static_cast<unsigned>(error)));
    return false;
}

// Opens the source and the target of the copy; reports the step that failed.
bool openStreams(const char* original, char* directory, StreamGuard& source,
                 TemporaryCopyGuard& copy) {
    if (const int error = SysFileOpenRead(original, source.slot()); error != 0) {
        return reportFileError("SysFileOpenRead", error);
    }
    if (const int error = SysFileSeek(source.stream(), 0, 0); error != 0) {
        // Not run by a test: a file that was just opened can be sought.
        return reportFileError("SysFileSeek", error);
    }
    if (const int error = SysFileCreateDirectory(directory); error != 0) {
        return reportFileError("SysFileCreateDirectory", error);
    }
    if (const int error = copy.create(); error != 0) {
        return reportFileError("SysFileCreate", error);
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

int reportInvalidOpenDbPath(const char* file) {
    DB_TraceExt("PrepareOpenDbForBackup(): Getting database file name failure for database [%s].",
                file);
    DB_ErrHandler(0, kErrorKindNone, "PrepareOpenDbForBackup(): File full path [%s] is not valid.",
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
