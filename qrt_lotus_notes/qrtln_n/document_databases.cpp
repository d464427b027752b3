#include "qrt_lotus_notes/qrtln_n/document_databases.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>
#include <vector>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "qrt_lotus_notes/qrtln_n/notes_time.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"
#include "qrt_lotus_notes/qrtln_u/local_time.h"

namespace {

// Class of notes that are documents.
constexpr WORD kDocuments = 1;

bool haveEqualNames(const DocumentRestore& restore) {
    char szOriginalName[kPathSize];
    char szBackupName[kPathSize];
    getFileName(restore.cpOriginalDb, szOriginalName);
    getFileName(restore.cpBackupDb, szBackupName);
    if (std::strcmp(szOriginalName, szBackupName) == 0) {
        return true;
    }
    DB_TraceExt("%s(): Error: the original and backup databases are different.",
                restore.texts.szFunction);
    return false;
}

bool openDatabase(const DocumentRestore& restore, const char* path, DatabaseGuard& database) {
    char szTmpFile[kPathSize];
    if (!translateOrReport(restore.texts.szFunction, path, szTmpFile)) {
        return false;
    }
    const STATUS status = database.open(szTmpFile);
    if (status != kNotesNoError) {
        DB_TraceExt("Notes API NSFDbOpen() failure on file: %s", getUTF8FileName(path));
        reportNotesError(status);
        return false;
    }
    return true;
}

// The moments that "MM/DD/YYYY hh:mm" means here: more than one where the clock repeats it, none
// where it skips it or the text is no such time.
std::vector<time_t> momentsOfSince(const char* cpChangedSinceDate) {
    struct tm local = {};
    const char* at = cpChangedSinceDate;
    const char* const end = at + std::strlen(at);
    bool good = true;
    for (const auto& [part, separator] :
         {std::pair{&local.tm_mon, '/'}, std::pair{&local.tm_mday, '/'},
          std::pair{&local.tm_year, ' '}, std::pair{&local.tm_hour, ':'},
          std::pair{&local.tm_min, '\0'}}) {
        const auto [next, error] = std::from_chars(at, end, *part);
        good = good && error == std::errc() && *next == separator;
        at = next == end ? end : next + 1;
    }
    local.tm_mon -= 1;
    local.tm_year -= 1900;
    return good && isCalendarTime(local) ? momentsShownAs(local) : std::vector<time_t>{};
}

bool convertSinceText(DocumentRestore& restore) {
    char szSince[kPathSize];
    copyText(szSince, restore.cpChangedSinceDate); // the call takes a pointer that it moves
    char* cpSince = szSince;
    TIMEDATE& time = restore.tdStartTime;
    const STATUS status = notes_api.ConvertTextToTIMEDATE(
        nullptr, nullptr, &cpSince, static_cast<WORD>(std::strlen(szSince)), &time);
    if (status != kNotesNoError) {
        DB_TraceExt("%s(): Error converting time value %s.", restore.texts.szFunction,
                    restore.cpChangedSinceDate);
        reportNotesError(status);
        return false;
    }
    // Of a repeated time the server may read either.
    const std::vector<time_t> moments = momentsOfSince(restore.cpChangedSinceDate);
    if (std::none_of(moments.begin(), moments.end(),
                     [&](time_t moment) { return isSameMoment(time, moment); }) &&
        !moments.empty()) {
        logOtherMoment(restore.cpOriginalDb, time, moments.front());
    }
    return true;
}

STATUS listDocuments(const DatabaseGuard& database, const TIMEDATE& since, IdTableGuard& table) {
    TIMEDATE tdLastTime = {};
    return table.fill([&](DHANDLE* handle) {
        return notes_api.NSFDbGetModifiedNoteTable(database.handle(), kDocuments, since,
                                                   &tdLastTime, handle);
    });
}

// Reports a list that failed.
int reportUnlisted(const DocumentRestore& restore, const char* szWhich, STATUS status) {
    DB_TraceExt("%s(): NSFDbGetModifiedNoteTable() call for %s database failed.",
                restore.texts.szFunction, szWhich);
    reportNotesError(status);
    return DB_NUM_E_FAILED;
}

} // namespace

bool openDocumentDatabases(DocumentRestore& restore) {
    if (!haveEqualNames(restore) ||
        !openDatabase(restore, restore.cpOriginalDb, restore.original) ||
        !openDatabase(restore, restore.cpBackupDb, restore.backup) || !convertSinceText(restore)) {
        return false;
    }
    notes_api.NSFDbIDGet(restore.original.handle(), &restore.OriginalDbDbId);
    notes_api.NSFDbIDGet(restore.backup.handle(), &restore.BackupDbDbId);
    return true;
}

int listChangesOfOriginal(const DocumentRestore& restore, IdTableGuard& table) {
    const STATUS status = listDocuments(restore.original, restore.tdStartTime, table);
    if (status == kNotesNoError) {
        return DB_NUM_I_OK;
    }
    if (isStatus(status, kNotesNoNoteModified)) {
        DB_TraceExt("%s(): There are no documents in the original database which has been %s "
                    "since %s.",
                    restore.texts.szFunction, restore.texts.szChange, restore.cpChangedSinceDate);
        return DB_NUM_I_COMPLETE;
    }
    return reportUnlisted(restore, "original", status);
}

int listBackup(DocumentRestore& restore, IdTableGuard& table) {
    notes_api.TimeConstant(kTimeWildcard, &restore.tdStartTime);
    const STATUS status = listDocuments(restore.backup, restore.tdStartTime, table);
    if (status == kNotesNoError) {
        return DB_NUM_I_OK;
    }
    if (isStatus(status, kNotesNoNoteModified)) {
        DB_TraceExt("%s(): There are no documents in the backup database.",
                    restore.texts.szFunction);
        return DB_NUM_I_COMPLETE;
    }
    return reportUnlisted(restore, "backup", status);
}

bool copyToOriginal(DocumentRestore& restore, NOTEID id) {
    const STATUS status = notes_api.NSFDbCopyNote(
        restore.backup.handle(), &restore.BackupDbDbId, nullptr, id, restore.original.handle(),
        &restore.OriginalDbDbId, nullptr, nullptr, nullptr);
    if (status != kNotesNoError) {
        DB_TraceExt("%s(): NSFDbCopyNote() call failed.", restore.texts.szFunction);
        reportNotesError(status);
        return false;
    }
    return true;
}

int closeDocumentDatabases(DocumentRestore& restore) {
    int result = DB_NUM_I_OK;
    if (const STATUS status = restore.original.close(); status != kNotesNoError) {
        DB_TraceExt("%s(): NSFDbClose() call for original database FAILED: %s.",
                    restore.texts.szFunction, getLotusNotesApiError(status, FALSE));
        reportNotesError(status);
        result = DB_NUM_E_FAILED;
    }
    if (const STATUS status = restore.backup.close(); status != kNotesNoError) {
        // One text for both kinds of restore, with the name of one: readers of traces look for it.
        DB_TraceExt("RestoreDeletedDocuments(): NSFDbClose() call for backup database FAILED: %s.",
                    getLotusNotesApiError(status, FALSE));
        reportNotesError(status);
        result = DB_NUM_E_FAILED;
    }
    return result;
}
