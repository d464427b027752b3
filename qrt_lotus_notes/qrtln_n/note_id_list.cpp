#include "qrt_lotus_notes/qrtln_n/note_id_list.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_n/guards.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"

void formatNoteId(NOTEID id, NoteIdText& szNoteId) {
    formatText(szNoteId, sizeof szNoteId, "%d", static_cast<int>(id));
}

bool buildNoteIdListPath(char (&szPath)[kPathSize]) {
    return joinPath(szPath, sizeof szPath, g_sQRTLN_Global.szNotesDataDirectory,
                    "noteids_list.txt");
}

bool readNoteIdList(const char* path, LIST_INFO* lhNoteIds) {
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

std::unordered_set<std::string> noteIdTexts(const LIST_INFO* lhNoteIds) {
    std::unordered_set<std::string> texts;
    if (lhNoteIds != nullptr) {
        for (const LIST_ITEM* item = lhNoteIds->spFirstItem; item != nullptr;
             item = item->spNextItem) {
            const char* text = static_cast<const char*>(item->vpData);
            texts.emplace(text, strnlen(text, static_cast<std::size_t>(item->iDataSize)));
        }
    }
    return texts;
}
