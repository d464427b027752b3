#include "qrt_lotus_notes/qrtln_n/unread_marks.h"

#include <cstddef>
#include <cstring>

#include "qrt_lotus_notes/qrtln_n/guards.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"

namespace {

// Size of a user's name as the server writes it.
constexpr std::size_t kUserNameSize = 257;

// Whether a call failed, which is traced: `what` could not be done.
bool couldNot(STATUS status, const char* what) {
    if (status != kNotesNoError) {
        DB_TraceExt("setNotesAsUnread(): Could not %s.", what);
    }
    return status != kNotesNoError;
}

} // namespace

int setNotesAsUnread(DHANDLE hDb, NOTEID NotedId) {
    // The user of the server's own id file, one byte more than the call may fill stays NUL.
    char szUserName[kUserNameSize + 1] = "";
    if (couldNot(notes_api.SECKFMGetUserName(szUserName), "get user name")) {
        return DB_NUM_E_FAILED;
    }
    const WORD length = static_cast<WORD>(std::strlen(szUserName));

    // The user's unread notes, up to date, and a copy of them to tell the server what changed.
    IdTableGuard unread;
    const auto getUnread = [&](DHANDLE* handle) {
        return notes_api.NSFDbGetUnreadNoteTable(hDb, szUserName, length, TRUE, handle);
    };
    IdTableGuard former;
    const auto copyUnread = [&](DHANDLE* handle) {
        return notes_api.IDTableCopy(unread.handle(), handle);
    };
    if (couldNot(unread.fill(getUnread), "get unread notes table") ||
        couldNot(notes_api.NSFDbUpdateUnread(hDb, unread.handle()), "update unread notes table") ||
        couldNot(former.fill(copyUnread), "copy unread notes table")) {
        return DB_NUM_E_FAILED;
    }

    if (notes_api.IDIsPresent(unread.handle(), NotedId)) {
        DB_TraceExt("setNotesAsUnread(): The note does (%d) already belongs to unread list.",
                    static_cast<int>(NotedId));
    } else {
        notes_api.IDInsert(unread.handle(), NotedId, nullptr); // looked up instead of asked
        if (!notes_api.IDIsPresent(unread.handle(), NotedId)) {
            DB_TraceExt("setNotesAsUnread(): Insert note into unread list unsuccessful.");
        }
        if (!couldNot(notes_api.NSFDbSetUnreadNoteTable(hDb, szUserName, length, FALSE,
                                                        former.handle(), unread.handle()),
                      "set unread note table")) {
            DB_TraceExt("setNotesAsUnread(): Setting note (%d) as unread.",
                        static_cast<int>(NotedId));
        }
    }
    return couldNot(notes_api.NSFDbUpdateUnread(hDb, unread.handle()), "update unread notes table")
               ? DB_NUM_E_FAILED
               : DB_NUM_I_OK;
}
