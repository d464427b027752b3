#include "qrt_lotus_notes/qrtln_n/offline_databases.h"

#include "qrt_lotus_notes/qrtln_n/notes_report.h"

namespace {

// NSFTakeDatabaseOffline does not wait for users to leave, and does not delete the database.
constexpr DWORD kNoWait = 0;
constexpr DWORD kNoOptions = 0;
} // namespace

int TakeDbsOffline(const char* cpDbFile) {
    char szTmpFile[kPathSize];
    if (!translateOrReport("TakeDbsOffline", cpDbFile, szTmpFile)) {
        return DB_NUM_E_FAILED;
    }
    const STATUS status = notes_api.NSFTakeDatabaseOffline(szTmpFile, kNoWait, kNoOptions);
    if (status != kNotesNoError) {
        reportNotesError(status);
        DB_TraceExt("TakeDbsOffline(): Error taking database offline %s: %s",
                    getUTF8FileName(cpDbFile), getLotusNotesApiError(status, FALSE));
        return isStatus(status, kNotesDatabaseInUse) ? DB_NUM_E_DB_IN_USE : DB_NUM_E_FAILED;
    }
    DB_TraceExt("TakeDbsOffline(): Database %s taken offline", getUTF8FileName(cpDbFile));
    return DB_NUM_I_OK;
}

int BringDbsOnline(const char* cpDbFile) {
    char szTmpFile[kPathSize];
    if (!translateOrReport("BringDbsOnline", cpDbFile, szTmpFile)) {
        return DB_NUM_E_FAILED;
    }
    const STATUS status = notes_api.NSFBringDatabaseOnline(szTmpFile, kNoOptions);
    if (status != kNotesNoError) {
        reportNotesError(status);
        DB_TraceExt("BringDbsOnline(): Error taking database %s online: %s",
                    getUTF8FileName(cpDbFile), getLotusNotesApiError(status, FALSE));
        return DB_NUM_E_FAILED;
    }
    DB_TraceExt("BringDbsOnline(): Database %s brought online", getUTF8FileName(cpDbFile));
    return DB_NUM_I_OK;
}

int ActivateDb(const char* cpDbFile) {
    return BringDbsOnline(cpDbFile) == DB_NUM_I_OK ? DB_NUM_I_OK : DB_NUM_E_FAILED;
}
