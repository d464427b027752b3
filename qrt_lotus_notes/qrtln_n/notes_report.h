// What every unit that calls the Notes C API needs around the calls: the report of a failed call,
// paths as the server takes them, and how log lines show an identity.
#pragma once

#include "common/bounded_text.h"
#include "notes_api/notes_api.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_n/runtime_session.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

// Records the text of a failed call's status for the client; the text is logged on its own too.
inline void reportNotesError(int status) {
    DB_ErrHandler(0, kErrorKindNone, "%s", getLotusNotesApiError(status, TRUE));
}

// Writes the LMBCS form of a path. Returns false, reported, when the server cannot be given it: it
// does not fit, or the runtime is not up.
inline bool translateOrReport(const char* function, const char* path, char (&szLmbcs)[kPathSize]) {
    if (!g_sQRTLN_Global.bNotesInitialized) {
        reportRuntimeNotInitialized();
        return false;
    }
    if (!translateToLmbcs(path, szLmbcs)) {
        DB_ErrHandler(0, kErrorKindNone, "%s(): File full path [%s] is not valid.", function,
                      getUTF8FileName(path));
        return false;
    }
    return true;
}

// How a database is logged, as the server tells it.
struct DatabaseLogInfo {
    BOOL bLogged = FALSE;
    UNIVERSALNOTEID LogID = {};
    UNIVERSALNOTEID DbIID = {};
    DWORD dwLogExtent = 0;

    STATUS read(DBHANDLE hDB) {
        return notes_api.NSFDbGetLogInfo(hDB, 0, &bLogged, &LogID, &DbIID, &dwLogExtent);
    }
};

// Size of the text form of a DBIID with its NUL: 34 characters.
inline constexpr std::size_t kDbIIdTextSize = 35;

// Writes the text form of a DBIID, as the index of instances and the traces have it.
inline void formatDbIId(const UNIVERSALNOTEID& DbIID, char (&szDbIId)[kDbIIdTextSize]) {
    formatText(szDbIId, sizeof szDbIId, "%08lX-%08lX %08lX%08lX",
               static_cast<unsigned long>(DbIID.File.Innards[0]),
               static_cast<unsigned long>(DbIID.File.Innards[1]),
               static_cast<unsigned long>(DbIID.Note.Innards[0]),
               static_cast<unsigned long>(DbIID.Note.Innards[1]));
}

// The text form for a message: made where the message is, and only when somebody hears it.
struct DbIIdText {
    explicit DbIIdText(const UNIVERSALNOTEID& DbIID) { formatDbIId(DbIID, szText); }
    char szText[kDbIIdTextSize];
};

// The short form in which log lines show the identity of a database or of a log's archive.
inline unsigned long foldedId(const UNIVERSALNOTEID& id) {
    return id.File.Innards[0] ^ id.File.Innards[1] ^ id.Note.Innards[0] ^ id.Note.Innards[1];
}
