#include "qrt_lotus_notes/qrtln_n/backup_steps.h"

#include <cstring>

#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"

namespace {

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

// Whether a call failed, which is traced by the call's name.
bool failed(const char* caller, const char* call, STATUS status) {
    if (status != kNotesNoError) {
        DB_TraceExt("%s(): %s LN C API call failed", caller, call);
    }
    return status != kNotesNoError;
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
        if (failed(caller, "NSFBackupGetNextChangeInfo", status)) {
            return status;
        }
        status = notes_api.NSFBackupApplyNextChangeInfo(hApplyContext, 0, buffer, dwFilledSize);
        if (failed(caller, "NSFBackupApplyNextChangeInfo", status)) {
            return status;
        }
    } while (dwFilledSize != 0);
    return kNotesNoError;
}

} // namespace

void cutFileName(char* path) {
    *std::strrchr(path, kDelimiter) = '\0';
}

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

STATUS stopRecording(const char* caller, DBHANDLE hDB, DHANDLE hBackupContext,
                     ChangeInfoSize& size) {
    STATUS status = notes_api.NSFBackupStop(hDB, hBackupContext);
    if (failed(caller, "NSFBackupStop", status)) {
        return status;
    }
    status = notes_api.NSFBackupGetChangeInfoSize(hDB, hBackupContext, 0, &size.low, &size.high);
    if (failed(caller, "NSFBackupGetChangeInfoSize", status)) {
        return status;
    }
    DB_TraceExt("%s(): change information size low [%lu] high [%lu]", caller,
                static_cast<unsigned long>(size.low), static_cast<unsigned long>(size.high));
    return kNotesNoError;
}

STATUS applyRecordedChanges(const char* caller, DBHANDLE hDB, DHANDLE hBackupContext,
                            ApplyContextGuard& apply, char* lmbcsPath, const ChangeInfoSize& size,
                            BYTE* buffer) {
    const STATUS status = apply.start(lmbcsPath, size.low, size.high);
    if (failed(caller, "NSFBackupStartApplyChangeInfo", status)) {
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

bool allocateBuffer(BufferGuard& buffer, void (*say)(const char* step)) {
    if (const STATUS status = buffer.allocate(); status != kNotesNoError) {
        say("OSMemAlloc");
        reportNotesError(status);
        return false;
    }
    if (buffer.data() == nullptr) {
        say("OSLockObject");
        DB_ErrHandler(0, kErrorKindNone, "cannot lock the working buffer");
        return false;
    }
    return true;
}
