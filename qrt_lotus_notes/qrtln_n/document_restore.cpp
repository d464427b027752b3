#include "qrt_lotus_notes/qrtln_n/document_restore.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_n/copy_path.h"
#include "qrt_lotus_notes/qrtln_n/guards.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "qrt_lotus_notes/qrtln_n/notes_time.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"

namespace {

constexpr char kNoteIdList[] = "noteids_list.txt";
// Class of notes that are documents.
constexpr WORD kDocuments = 1;
// In a table of modified notes, set in the id of one that was deleted.
constexpr NOTEID kDeletedNote = 0x80000000;
// Size of a user's name as the server writes it.
constexpr std::size_t kUserNameSize = 257;

using SinceText = char[32];
using NoteIdText = char[16];
using NoteIds = std::unordered_set<NOTEID>;

enum class Kind { deleted, changed };

bool isDeleted(Kind kind) {
    return kind == Kind::deleted;
}

// An id as lists of ids have it: decimal, and negative with the high bit set, as the C function
// that wrote them once took it for an int.
void formatNoteId(NOTEID id, NoteIdText& szNoteId) {
    formatText(szNoteId, sizeof szNoteId, "%d", static_cast<int>(id));
}

// The point in time as the server's default settings read it. The month comes first whatever the
// settings of this server are: a server that reads the day first restores from another day.
void formatSince(SinceText& szSince) {
    char szYear[5] = "";
    char szMonth[3] = "";
    char szDay[3] = "";
    char szHour[3] = "";
    char szMinute[3] = "";
    // A text that is too short leaves parts empty, which the server then refuses as a time.
    static_cast<void>(std::sscanf(g_sQRTLN_Global.szPointInTime, "%4s%2s%2s%2s%2s", szYear, szMonth,
                                  szDay, szHour, szMinute));
    formatText(szSince, sizeof szSince, "%s/%s/%s %s:%s", szMonth, szDay, szYear, szHour, szMinute);
}

// --- Both databases of a document restore ---

struct Databases {
    // The original is closed first.
    DatabaseGuard backup;
    DatabaseGuard original;
    DBID BackupDbDbId = {};
    DBID OriginalDbDbId = {};
    TIMEDATE tdStartTime = {};
};

bool haveEqualNames(Kind kind, const char* cpOriginalDb, const char* cpBackupDb) {
    char szOriginalName[kPathSize];
    char szBackupName[kPathSize];
    getFileName(cpOriginalDb, szOriginalName);
    getFileName(cpBackupDb, szBackupName);
    if (std::strcmp(szOriginalName, szBackupName) == 0) {
        return true;
    }
    DB_TraceExt(isDeleted(kind) ? "RestoreDeletedDocuments(): Error: the original and backup "
                                  "databases are different."
                                : "RestoreChangedDocuments(): Error: the original and backup "
                                  "databases are different.");
    return false;
}

bool openDatabase(Kind kind, const char* path, DatabaseGuard& database) {
    char szTmpFile[kPathSize];
    if (!translateOrReport(isDeleted(kind) ? "RestoreDeletedDocuments" : "RestoreChangedDocuments",
                           path, szTmpFile)) {
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

// The moment that a text of formatSince means here. False when it means none.
bool readSince(const char* cpChangedSinceDate, time_t& meant) {
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
    local.tm_isdst = -1;
    struct tm normal = local;
    meant = std::mktime(&normal);
    return good && normal.tm_mday == local.tm_mday && normal.tm_mon == local.tm_mon &&
           normal.tm_hour == local.tm_hour && normal.tm_min == local.tm_min;
}

bool convertSince(Kind kind, const char* cpOriginalDb, const char* cpChangedSinceDate,
                  TIMEDATE& time) {
    char szSince[kPathSize];
    copyText(szSince, cpChangedSinceDate); // the call takes a pointer that it moves
    char* cpSince = szSince;
    const STATUS status = notes_api.ConvertTextToTIMEDATE(
        nullptr, nullptr, &cpSince, static_cast<WORD>(std::strlen(szSince)), &time);
    if (status != kNotesNoError) {
        DB_TraceExt(isDeleted(kind) ? "RestoreDeletedDocuments(): Error converting time value %s."
                                    : "RestoreChangedDocuments(): Error converting time value %s.",
                    cpChangedSinceDate);
        reportNotesError(status);
        return false;
    }
    if (time_t meant = 0; readSince(cpChangedSinceDate, meant)) {
        logOtherMoment(cpOriginalDb, time, meant);
    }
    return true;
}

// Opens both databases, and learns their identities and the time to go back to.
bool openBoth(Kind kind, const char* cpOriginalDb, const char* cpBackupDb,
              const char* cpChangedSinceDate, Databases& databases) {
    if (!haveEqualNames(kind, cpOriginalDb, cpBackupDb) ||
        !openDatabase(kind, cpOriginalDb, databases.original) ||
        !openDatabase(kind, cpBackupDb, databases.backup) ||
        !convertSince(kind, cpOriginalDb, cpChangedSinceDate, databases.tdStartTime)) {
        return false;
    }
    notes_api.NSFDbIDGet(databases.original.handle(), &databases.OriginalDbDbId);
    notes_api.NSFDbIDGet(databases.backup.handle(), &databases.BackupDbDbId);
    return true;
}

STATUS listDocuments(const DatabaseGuard& database, const TIMEDATE& since, IdTableGuard& table) {
    TIMEDATE tdLastTime = {};
    return table.fill([&](DHANDLE* handle) {
        return notes_api.NSFDbGetModifiedNoteTable(database.handle(), kDocuments, since,
                                                   &tdLastTime, handle);
    });
}

// Lists what changed in the original. Returns 3000 with a table, 3001 when nothing did, else 1000
// (reported).
int listOriginal(Kind kind, const Databases& databases, const char* cpChangedSinceDate,
                 IdTableGuard& table) {
    const STATUS status = listDocuments(databases.original, databases.tdStartTime, table);
    if (status == kNotesNoError) {
        return DB_NUM_I_OK;
    }
    if (isStatus(status, kNotesNoNoteModified)) {
        DB_TraceExt(isDeleted(kind)
                        ? "RestoreDeletedDocuments(): There are no documents in the original "
                          "database which has been changed (deleted) since %s."
                        : "RestoreChangedDocuments(): There are no documents in the original "
                          "database which has been changed since %s.",
                    cpChangedSinceDate);
        return DB_NUM_I_COMPLETE;
    }
    DB_TraceExt(isDeleted(kind) ? "RestoreDeletedDocuments(): NSFDbGetModifiedNoteTable() call for "
                                  "original database failed."
                                : "RestoreChangedDocuments(): NSFDbGetModifiedNoteTable() call for "
                                  "original database failed.");
    reportNotesError(status);
    return DB_NUM_E_FAILED;
}

// Lists every document of the backup. Answers as listOriginal.
int listBackup(Kind kind, Databases& databases, IdTableGuard& table) {
    notes_api.TimeConstant(kTimeWildcard, &databases.tdStartTime);
    const STATUS status = listDocuments(databases.backup, databases.tdStartTime, table);
    if (status == kNotesNoError) {
        return DB_NUM_I_OK;
    }
    if (isStatus(status, kNotesNoNoteModified)) {
        DB_TraceExt(
            isDeleted(kind)
                ? "RestoreDeletedDocuments(): There are no documents in the backup database."
                : "RestoreChangedDocuments(): There are no documents in the backup database.");
        return DB_NUM_I_COMPLETE;
    }
    DB_TraceExt(isDeleted(kind) ? "RestoreDeletedDocuments(): NSFDbGetModifiedNoteTable() call for "
                                  "backup database failed."
                                : "RestoreChangedDocuments(): NSFDbGetModifiedNoteTable() call for "
                                  "backup database failed.");
    reportNotesError(status);
    return DB_NUM_E_FAILED;
}

// Calls take(id) for each id of a table, in its order, until one answers false. Returns whether
// none did.
template <typename Take>
bool forEachId(const IdTableGuard& table, Take take) {
    NOTEID id = 0;
    for (BOOL bFirst = TRUE; notes_api.IDScan(table.handle(), bFirst, &id); bFirst = FALSE) {
        if (!take(id)) {
            return false;
        }
    }
    return true;
}

bool copyToOriginal(Kind kind, Databases& databases, NOTEID id) {
    const STATUS status = notes_api.NSFDbCopyNote(
        databases.backup.handle(), &databases.BackupDbDbId, nullptr, id,
        databases.original.handle(), &databases.OriginalDbDbId, nullptr, nullptr, nullptr);
    if (status != kNotesNoError) {
        DB_TraceExt(isDeleted(kind) ? "RestoreDeletedDocuments(): NSFDbCopyNote() call failed."
                                    : "RestoreChangedDocuments(): NSFDbCopyNote() call failed.");
        reportNotesError(status);
        return false;
    }
    return true;
}

// Copies one deleted document back.
bool restoreDeletedNote(Databases& databases, NOTEID id) {
    DB_TraceExt("RestoreDeletedDocuments(): Copying note (%d) to original database ...",
                static_cast<int>(id));
    if (!copyToOriginal(Kind::deleted, databases, id)) {
        return false;
    }
    // The document is back; that it does not show as new is no failure of the restore.
    if (setNotesAsUnread(databases.original.handle(), id) != DB_NUM_I_OK) {
        DB_TraceExt("RestoreDeletedDocuments(): Setting note as unread failed.");
    }
    return true;
}

// Replaces one changed document. It is gone from the original between the two calls, and stays so
// when the copy fails. Changed documents are not marked unread: their readers have read them.
bool restoreChangedNote(Databases& databases, NOTEID id) {
    NoteIdText szNoteId;
    formatNoteId(id, szNoteId);
    DB_TraceExt("RestoreChangedDocuments(): Deleting note (%s) from original database ...",
                szNoteId);
    const STATUS status = notes_api.NSFNoteDelete(databases.original.handle(), id, 0);
    if (status != kNotesNoError) {
        DB_TraceExt("RestoreChangedDocuments(): NSFNoteDelete() call failed.");
        reportNotesError(status);
        return false;
    }
    DB_TraceExt("RestoreChangedDocuments(): Copying note (%s) to original database ...", szNoteId);
    return copyToOriginal(Kind::changed, databases, id);
}

// Closes both; a failure is reported, as the answer says that there was one.
int closeBoth(Kind kind, Databases& databases) {
    int result = DB_NUM_I_OK;
    if (const STATUS status = databases.original.close(); status != kNotesNoError) {
        DB_TraceExt(isDeleted(kind)
                        ? "RestoreDeletedDocuments(): NSFDbClose() call for original database "
                          "FAILED: %s."
                        : "RestoreChangedDocuments(): NSFDbClose() call for original database "
                          "FAILED: %s.",
                    getLotusNotesApiError(status, FALSE));
        reportNotesError(status);
        result = DB_NUM_E_FAILED;
    }
    if (const STATUS status = databases.backup.close(); status != kNotesNoError) {
        // One text for both kinds of restore, with the name of one: readers of traces look for it.
        DB_TraceExt("RestoreDeletedDocuments(): NSFDbClose() call for backup database FAILED: %s.",
                    getLotusNotesApiError(status, FALSE));
        reportNotesError(status);
        result = DB_NUM_E_FAILED;
    }
    return result;
}

// --- The list of note ids ---

// The texts of a list, to be looked up in constant time: a walk over the list for each of a
// database's documents would cost their product.
std::unordered_set<std::string> textsOf(const LIST_INFO* list) {
    std::unordered_set<std::string> texts;
    if (list != nullptr) {
        for (const LIST_ITEM* item = list->spFirstItem; item != nullptr; item = item->spNextItem) {
            const char* text = static_cast<const char*>(item->vpData);
            texts.emplace(text, strnlen(text, static_cast<std::size_t>(item->iDataSize)));
        }
    }
    return texts;
}

bool buildListPath(char (&szPath)[kPathSize]) {
    const std::string_view directory = g_sQRTLN_Global.szNotesDataDirectory;
    const bool bDelimited = !directory.empty() && directory.back() == kDelimiter;
    return formatText(szPath, sizeof szPath, "%s%s%s", g_sQRTLN_Global.szNotesDataDirectory,
                      bDelimited ? "" : "/", kNoteIdList);
}

// Queues every line of the list, empty ones and pieces of overlong ones too.
bool readNoteIds(const char* path, LIST_INFO* lhNoteIds) {
    StreamGuard file;
    bool bRead = SysFileOpenRead(path, file.slot()) == 0;
    if (bRead) {
        char szLine[kPathSize];
        while (std::fgets(szLine, sizeof szLine, file.stream()) != nullptr) {
            const std::size_t length = std::strlen(szLine);
            // One character is cut, no more: a line that ends in carriage return and line feed
            // keeps the former and matches no id. Lists written so have always selected nothing.
            if (length > 0 && (szLine[length - 1] == '\n' || szLine[length - 1] == '\r')) {
                szLine[length - 1] = '\0';
            }
            PushFIFOItemLN(lhNoteIds, szLine, static_cast<unsigned int>(std::strlen(szLine) + 1),
                           DB_BACKUP_FILE_TYPE_DB);
        }
        // Half a list would restore half of what was asked for, silently.
        const int error = errno;
        bRead = std::ferror(file.stream()) == 0;
        if (!bRead) {
            DB_TraceExt("ChangedDocumentsRecovery(): reading [%s] failed with errno (%d): %s",
                        getUTF8FileName(path), error, getSysMsg(static_cast<unsigned>(error)));
        }
    }
    if (!bRead) {
        DB_TraceExt("Could not open NoteID list file: %s", getUTF8FileName(path));
    }
    return bRead;
}

void deleteFile(const char* path) {
    DB_TraceExt("Deleting %s ...", getUTF8FileName(path));
    SysFileDelete(path);
}

struct DestroyNoteIds {
    LIST_INFO* list;
    ~DestroyNoteIds() { DestroyFIFOList(list); }
};

} // namespace

int DeletedDocumentsRecovery(const char* cpBackupDb, const char* cpOriginalDb) {
    SinceText szDeletedSinceDate = "";
    formatSince(szDeletedSinceDate);
    DB_TraceExt("Copying deleted documents from %s to %s since date %s",
                getUTF8FileName(cpBackupDb), getUTF8FileName(cpOriginalDb), szDeletedSinceDate);
    const int result = RestoreDeletedDocuments(cpOriginalDb, cpBackupDb, szDeletedSinceDate);
    DB_TraceExt(result == DB_NUM_I_OK ? "Deleted documents recovery succeed"
                                      : "Deleted documents recovery failed");
    return result;
}

int ChangedDocumentsRecovery(const char* cpBackupDb, const char* cpOriginalDb) {
    // Its documents would be deleted and not found again, and then the database itself.
    if (isSameFile(cpBackupDb, cpOriginalDb)) {
        DB_ErrHandler(0, kErrorKindNone,
                      "ChangedDocumentsRecovery(): [%s] is the live database itself",
                      getUTF8FileName(cpBackupDb));
        return DB_NUM_E_FAILED;
    }
    char szList[kPathSize];
    const DestroyNoteIds noteIds{CreateFIFOList()};
    if (!buildListPath(szList) || !readNoteIds(szList, noteIds.list)) {
        return DB_NUM_E_FAILED;
    }

    SinceText szChangedSinceDate = "";
    formatSince(szChangedSinceDate);
    DB_TraceExt("Copying changed documents from %s to %s since date %s",
                getUTF8FileName(cpBackupDb), getUTF8FileName(cpOriginalDb), szChangedSinceDate);
    const int result =
        RestoreChangedDocuments(cpOriginalDb, cpBackupDb, noteIds.list, szChangedSinceDate);
    DB_TraceExt(result == DB_NUM_I_OK ? "Changed documents recovery succeed"
                                      : "Changed documents recovery failed");

    // Whatever the result: the next restore must not meet a list or a copy of this one.
    deleteFile(cpBackupDb);
    deleteFile(szList);
    return result;
}

int RestoreDeletedDocuments(const char* cpOriginalDb, const char* cpBackupDb,
                            const char* cpChangedSinceDate) {
    Databases databases;
    if (!openBoth(Kind::deleted, cpOriginalDb, cpBackupDb, cpChangedSinceDate, databases)) {
        return DB_NUM_E_FAILED;
    }

    // What was deleted from the original since then, and what is still there.
    IdTableGuard table;
    int result = listOriginal(Kind::deleted, databases, cpChangedSinceDate, table);
    if (result != DB_NUM_I_OK) {
        return result == DB_NUM_I_COMPLETE ? DB_NUM_I_OK : DB_NUM_E_FAILED;
    }
    NoteIds deleted;
    NoteIds nonDeleted;
    forEachId(table, [&](NOTEID id) {
        if ((id & kDeletedNote) != 0) {
            deleted.insert(id & ~kDeletedNote);
        } else {
            nonDeleted.insert(id);
        }
        return true;
    });
    table.destroy();

    // Whatever of it the backup has goes back.
    result = listBackup(Kind::deleted, databases, table);
    if (result != DB_NUM_I_OK) {
        return result == DB_NUM_I_COMPLETE ? DB_NUM_I_OK : DB_NUM_E_FAILED;
    }
    const bool bRestored = forEachId(table, [&](NOTEID id) {
        return deleted.count(id) == 0 || nonDeleted.count(id) != 0 ||
               restoreDeletedNote(databases, id);
    });
    table.destroy();
    return bRestored ? closeBoth(Kind::deleted, databases) : DB_NUM_E_FAILED;
}

int RestoreChangedDocuments(const char* cpOriginalDb, const char* cpBackupDb,
                            LIST_INFO* lhInputNoteIds, const char* cpChangedSinceDate) {
    Databases databases;
    if (!openBoth(Kind::changed, cpOriginalDb, cpBackupDb, cpChangedSinceDate, databases)) {
        return DB_NUM_E_FAILED;
    }

    // What changed in the original since then and is listed. The ids are compared as text: "0012"
    // is no id, and a deleted note's, whose high bit is not treated here, is negative.
    IdTableGuard table;
    int result = listOriginal(Kind::changed, databases, cpChangedSinceDate, table);
    if (result != DB_NUM_I_OK) {
        return result == DB_NUM_I_COMPLETE ? DB_NUM_I_OK : DB_NUM_E_FAILED;
    }
    const std::unordered_set<std::string> listed = textsOf(lhInputNoteIds);
    NoteIds toRestore;
    forEachId(table, [&](NOTEID id) {
        NoteIdText szNoteId;
        formatNoteId(id, szNoteId);
        if (listed.count(szNoteId) != 0) {
            toRestore.insert(id);
        }
        return true;
    });
    table.destroy();
    if (toRestore.empty()) {
        DB_TraceExt("RestoreChangedDocuments(): Selected LN documents has not been changed in "
                    "specified period.");
        return DB_NUM_I_OK;
    }

    // The backup's version takes the place of each.
    result = listBackup(Kind::changed, databases, table);
    if (result != DB_NUM_I_OK) {
        return result == DB_NUM_I_COMPLETE ? DB_NUM_I_OK : DB_NUM_E_FAILED;
    }
    const bool bRestored = forEachId(table, [&](NOTEID id) {
        return toRestore.count(id) == 0 || restoreChangedNote(databases, id);
    });
    table.destroy();
    return bRestored ? closeBoth(Kind::changed, databases) : DB_NUM_E_FAILED;
}

int setNotesAsUnread(DHANDLE hDb, NOTEID NotedId) {
    // The user of the server's own id file, one byte more than the call may fill stays NUL.
    char szUserName[kUserNameSize + 1] = "";
    if (notes_api.SECKFMGetUserName(szUserName) != kNotesNoError) {
        DB_TraceExt("setNotesAsUnread(): Could not get user name.");
        return DB_NUM_E_FAILED;
    }
    const WORD length = static_cast<WORD>(std::strlen(szUserName));

    // The user's unread notes, up to date, and a copy of them to tell the server what changed.
    IdTableGuard unread;
    if (unread.fill([&](DHANDLE* handle) {
            return notes_api.NSFDbGetUnreadNoteTable(hDb, szUserName, length, TRUE, handle);
        }) != kNotesNoError) {
        DB_TraceExt("setNotesAsUnread(): Could not get unread notes table.");
        return DB_NUM_E_FAILED;
    }
    if (notes_api.NSFDbUpdateUnread(hDb, unread.handle()) != kNotesNoError) {
        DB_TraceExt("setNotesAsUnread(): Could not update unread notes table.");
        return DB_NUM_E_FAILED;
    }
    IdTableGuard former;
    if (former.fill([&](DHANDLE* handle) {
            return notes_api.IDTableCopy(unread.handle(), handle);
        }) != kNotesNoError) {
        DB_TraceExt("setNotesAsUnread(): Could not copy unread notes table.");
        return DB_NUM_E_FAILED;
    }

    if (!notes_api.IDIsPresent(unread.handle(), NotedId)) {
        notes_api.IDInsert(unread.handle(), NotedId, nullptr); // looked up instead of asked
        if (!notes_api.IDIsPresent(unread.handle(), NotedId)) {
            DB_TraceExt("setNotesAsUnread(): Insert note into unread list unsuccessful.");
        }
        if (notes_api.NSFDbSetUnreadNoteTable(hDb, szUserName, length, FALSE, former.handle(),
                                              unread.handle()) != kNotesNoError) {
            DB_TraceExt("setNotesAsUnread(): Could not set unread note table.");
        } else {
            DB_TraceExt("setNotesAsUnread(): Setting note (%d) as unread.",
                        static_cast<int>(NotedId));
        }
    } else {
        DB_TraceExt("setNotesAsUnread(): The note does (%d) already belongs to unread list.",
                    static_cast<int>(NotedId));
    }
    if (notes_api.NSFDbUpdateUnread(hDb, unread.handle()) != kNotesNoError) {
        DB_TraceExt("setNotesAsUnread(): Could not update unread notes table.");
        return DB_NUM_E_FAILED;
    }
    return DB_NUM_I_OK;
}
