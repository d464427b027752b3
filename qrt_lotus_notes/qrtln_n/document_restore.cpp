#include "qrt_lotus_notes/qrtln_n/document_restore.h"

#include <cstdio>
#include <string>
#include <unordered_set>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_n/copy_path.h"
#include "qrt_lotus_notes/qrtln_n/document_databases.h"
#include "qrt_lotus_notes/qrtln_n/note_id_list.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"

namespace {

// In a table of modified notes, set in the id of one that was deleted.
constexpr NOTEID kDeletedNote = 0x80000000;

using SinceText = char[32];
using NoteIds = std::unordered_set<NOTEID>;

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

// The answer of a restore whose list ended it: nothing to do is a success.
int answerOfList(int result) {
    return result == DB_NUM_I_COMPLETE ? DB_NUM_I_OK : DB_NUM_E_FAILED;
}

// Copies one deleted document back.
bool restoreDeletedNote(DocumentRestore& restore, NOTEID id) {
    DB_TraceExt("RestoreDeletedDocuments(): Copying note (%d) to original database ...",
                static_cast<int>(id));
    if (!copyToOriginal(restore, id)) {
        return false;
    }
    // The document is back; that it does not show as new is no failure of the restore.
    if (setNotesAsUnread(restore.original.handle(), id) != DB_NUM_I_OK) {
        DB_TraceExt("RestoreDeletedDocuments(): Setting note as unread failed.");
    }
    return true;
}

// Replaces one changed document. It is gone from the original between the two calls, and stays so
// when the copy fails. Changed documents are not marked unread: their readers have read them.
bool restoreChangedNote(DocumentRestore& restore, NOTEID id) {
    NoteIdText szNoteId;
    formatNoteId(id, szNoteId);
    DB_TraceExt("RestoreChangedDocuments(): Deleting note (%s) from original database ...",
                szNoteId);
    const STATUS status = notes_api.NSFNoteDelete(restore.original.handle(), id, 0);
    if (status != kNotesNoError) {
        DB_TraceExt("RestoreChangedDocuments(): NSFNoteDelete() call failed.");
        reportNotesError(status);
        return false;
    }
    DB_TraceExt("RestoreChangedDocuments(): Copying note (%s) to original database ...", szNoteId);
    return copyToOriginal(restore, id);
}

// The documents that were deleted from the original, of those that changed in it. Always worth a
// look at the backup.
bool chooseDeleted(const IdTableGuard& changes, NoteIds& deleted) {
    NoteIds nonDeleted;
    forEachId(changes, [&](NOTEID id) {
        if ((id & kDeletedNote) != 0) {
            deleted.insert(id & ~kDeletedNote);
        } else {
            nonDeleted.insert(id);
        }
        return true;
    });
    for (const NOTEID id : nonDeleted) {
        deleted.erase(id);
    }
    return true;
}

// The documents that changed in the original and are listed. False when there is none. The ids are
// compared as text: "0012" is no id, and a deleted note's, whose high bit is not treated here, is
// negative.
bool chooseListed(const IdTableGuard& changes, const LIST_INFO* lhInputNoteIds, NoteIds& chosen) {
    const std::unordered_set<std::string> listed = noteIdTexts(lhInputNoteIds);
    forEachId(changes, [&](NOTEID id) {
        NoteIdText szNoteId;
        formatNoteId(id, szNoteId);
        if (listed.count(szNoteId) != 0) {
            chosen.insert(id);
        }
        return true;
    });
    if (chosen.empty()) {
        DB_TraceExt("RestoreChangedDocuments(): Selected LN documents has not been changed in "
                    "specified period.");
    }
    return !chosen.empty();
}

// A restore of either kind: choose(changes of the original, ids) says which documents go back and
// whether there is anything to do, restoreOne(restore, id) brings one back.
template <typename Choose, typename RestoreOne>
int restoreDocuments(DocumentRestore& restore, Choose choose, RestoreOne restoreOne) {
    if (!openDocumentDatabases(restore)) {
        return DB_NUM_E_FAILED;
    }

    // What changed in the original since then.
    IdTableGuard table;
    int result = listChangesOfOriginal(restore, table);
    if (result != DB_NUM_I_OK) {
        return answerOfList(result);
    }
    NoteIds chosen;
    if (!choose(table, chosen)) {
        return DB_NUM_I_OK;
    }
    table.destroy();

    // Whatever of it the backup has goes back.
    result = listBackup(restore, table);
    if (result != DB_NUM_I_OK) {
        return answerOfList(result);
    }
    const bool bRestored = forEachId(
        table, [&](NOTEID id) { return chosen.count(id) == 0 || restoreOne(restore, id); });
    table.destroy();
    return bRestored ? closeDocumentDatabases(restore) : DB_NUM_E_FAILED;
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
    if (!buildNoteIdListPath(szList) || !readNoteIdList(szList, noteIds.list)) {
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
    DocumentRestore restore = {kDeletedTexts, cpOriginalDb, cpBackupDb, cpChangedSinceDate};
    return restoreDocuments(restore, chooseDeleted, restoreDeletedNote);
}

int RestoreChangedDocuments(const char* cpOriginalDb, const char* cpBackupDb,
                            LIST_INFO* lhInputNoteIds, const char* cpChangedSinceDate) {
    DocumentRestore restore = {kChangedTexts, cpOriginalDb, cpBackupDb, cpChangedSinceDate};
    const auto choose = [&](const IdTableGuard& changes, NoteIds& chosen) {
        return chooseListed(changes, lhInputNoteIds, chosen);
    };
    return restoreDocuments(restore, choose, restoreChangedNote);
}
