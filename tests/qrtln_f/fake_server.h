// A server that answers from fields: the functions of the Notes C API that backup selection
// reaches.
#pragma once

#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "common/bounded_text.h"
#include "notes_api/notes_api.h"
#include "qrt_lotus_notes/operation_state.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"
#include "tests/support/temporary_folder.h"

// One database as the server sees it.
struct FakeDatabase {
    BOOL bLogged = FALSE;
    UNIVERSALNOTEID DbIID{};
    bool bBackedUp = true;  // on this instance of the log
    DWORD dwSpanNeeded = 0; // answer of NSFIsNewBackupNeeded
    bool bModified = false; // since whatever time
    STATUS openStatus = kNotesNoError;
    STATUS needStatus = kNotesNoError; // of the question whether it needs a backup
};

inline UNIVERSALNOTEID dbIId(DWORD number) {
    return {{{number, 0xA1B2C3D4}}, {{0x00000001, 0xFFFFFFFF}}};
}

// The text of the pending error, which is cleared; empty when there is none.
inline std::string takeErrorText() {
    TYPE_DB_Error error = {};
    takeError(&error);
    return error.szDBErrorMsg;
}

// The server and the operation record of a test; both are as after the module's loading.
class FakeServer {
  public:
    FakeServer() {
        // The callbacks of a MessageCapture outlive the reset.
        const auto traceFunction = g_sQRTLN_Global.vpTraceFunc;
        const auto logFunction = g_sQRTLN_Global.vpLogFunc;
        g_sQRTLN_Global = QRTLN_Global{};
        g_sQRTLN_Global.vpTraceFunc = traceFunction;
        g_sQRTLN_Global.vpLogFunc = logFunction;
        s_databases.clear();
        s_style = kLogStyleArchive;
        s_styleStatus = s_beginStatus = kNotesNoError;
        s_begins = s_terms = s_opens = 0;
        s_runTimeDirectory = folder.makeDirectory("run");
        folder.makeDirectory("data");
        folder.makeDirectory("tmp");
        copyText(g_sQRTLN_Global.szNotesDataDirectory, (folder.file("data") + "/").c_str());
        copyText(g_sQRTLN_Global.szTmpDir, folder.file("tmp").c_str());
        g_sQRTLN_Global.eI_OperationType = DB_TYPE_BCK;
        g_sQRTLN_Global.eI_OperationLevel = DB_LEVEL_FULL;
        g_sQRTLN_Global.bNotesInitialized = TRUE;
        g_sQRTLN_Global.lhNotesFileList = CreateFIFOList();
        fillSlots();
    }
    ~FakeServer() {
        DestroyFIFOList(g_sQRTLN_Global.lhNotesFileList);
        DestroyFIFOList(g_sQRTLN_Global.lhArgumentFileList);
        g_sQRTLN_Global = QRTLN_Global{};
    }
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;

    std::string data(const std::string& name) const { return folder.file("data/" + name); }

    // Creates a file below the data directory; returns its full path.
    std::string addFile(const std::string& name) const {
        return folder.write("data/" + name, "content of " + name);
    }
    std::string addDatabase(const std::string& name, const FakeDatabase& database) {
        s_databases[data(name)] = database;
        return addFile(name);
    }

    // Queues a database argument.
    void addArgument(const std::string& argument) {
        if (g_sQRTLN_Global.lhArgumentFileList == nullptr) {
            g_sQRTLN_Global.lhArgumentFileList = CreateFIFOList();
        }
        pushPath(g_sQRTLN_Global.lhArgumentFileList, argument.c_str(), DB_BACKUP_FILE_TYPE_DB);
    }

    // Takes everything out of the item queue, each item with its kind.
    std::vector<std::pair<std::string, DB_BACKUP_FILE_TYPE>> drain() const {
        std::vector<std::pair<std::string, DB_BACKUP_FILE_TYPE>> items;
        char szItem[kPathSize];
        unsigned int uiSize = 0;
        DB_BACKUP_FILE_TYPE kind = DB_BACKUP_FILE_TYPE_DB;
        while (PullFIFOItemLN(g_sQRTLN_Global.lhNotesFileList, szItem, &uiSize, &kind)) {
            items.emplace_back(szItem, kind);
        }
        return items;
    }
    std::vector<std::string> drainNames() const {
        std::vector<std::string> names;
        for (const auto& item : drain()) {
            names.push_back(item.first);
        }
        return names;
    }

    TemporaryFolder folder;
    inline static std::map<std::string, FakeDatabase> s_databases;
    inline static WORD s_style;
    inline static STATUS s_styleStatus;
    inline static STATUS s_beginStatus;
    inline static int s_begins; // calls of NSFBeginArchivingLogs
    inline static int s_terms;  // calls of NotesTerm
    inline static int s_opens;  // databases open now
    inline static std::string s_runTimeDirectory;

  private:
    inline static FakeDatabase s_open;

    static STATUS open(const char* path, DBHANDLE* handle) {
        const auto found = s_databases.find(path);
        if (found == s_databases.end()) {
            return kNotesNoSuchFile;
        }
        s_open = found->second;
        if (s_open.openStatus == kNotesNoError) {
            *handle = 1;
            ++s_opens;
        }
        return s_open.openStatus;
    }

    static int succeed() { return 0; }

    static void fillSlots() {
        // Every function succeeds and leaves its outputs alone but those below.
        for (NotesSlot* slot = notes_api.first; slot != nullptr; slot = slot->next()) {
            slot->setAddress(reinterpret_cast<void*>(&succeed));
        }
        notes_api.OSTranslate = [](WORD, const char* in, WORD, char* out, WORD size) -> WORD {
            copyText(out, size, in);
            return static_cast<WORD>(std::strlen(out));
        };
        notes_api.OSLoadString = [](HMODULE, STATUS status, char* out, WORD size) -> WORD {
            formatText(out, size, "status %d", status);
            return static_cast<WORD>(std::strlen(out));
        };
        notes_api.NotesTerm = [] { ++s_terms; };
        notes_api.NSFDbOpen = &open;
        notes_api.NSFDbClose = [](DBHANDLE) -> STATUS {
            --s_opens;
            return kNotesNoError;
        };
        notes_api.NSFDbGetLogInfo = [](DBHANDLE, DWORD, BOOL* logged, UNIVERSALNOTEID*,
                                       UNIVERSALNOTEID* id, DWORD*) -> STATUS {
            *logged = s_open.bLogged;
            *id = s_open.DbIID;
            return kNotesNoError;
        };
        notes_api.NSFGetTransLogStyle = [](WORD* style) -> STATUS {
            *style = s_style;
            return s_styleStatus;
        };
        notes_api.NSFBeginArchivingLogs = []() -> STATUS {
            ++s_begins;
            return s_beginStatus;
        };
        notes_api.NSFIsNewBackupNeeded = [](char* path, DWORD, DWORD* needed) -> STATUS {
            const FakeDatabase& database = s_databases[path];
            *needed = database.dwSpanNeeded;
            return !database.bBackedUp ? kNotesNotBackedUp : database.needStatus;
        };
        // The way to NSFDbGetModifiedNoteTable.
        notes_api.OSGetIntlSettings = [](INTLFORMAT* format, WORD) {
            copyText(format->DateString, ".");
            copyText(format->TimeString, ":");
        };
        notes_api.NSFDbGetModifiedNoteTable = [](DBHANDLE, WORD, TIMEDATE, TIMEDATE*,
                                                 DHANDLE* table) -> STATUS {
            *table = 1;
            return s_open.bModified ? kNotesNoError : kNotesNoNoteModified;
        };
        // The way through a backup copy of one byte; nothing changes while it is made.
        notes_api.NSFBackupStart = [](DBHANDLE, DWORD, DHANDLE* context, DWORD* low,
                                      DWORD*) -> STATUS {
            *context = *low = 1;
            return kNotesNoError;
        };
        notes_api.NSFBackupStartApplyChangeInfo = [](DHANDLE* context, char*, DWORD, DWORD,
                                                     DWORD) -> STATUS {
            *context = 1;
            return kNotesNoError;
        };
        notes_api.OSMemAlloc = [](WORD, DWORD, DHANDLE* handle) -> STATUS {
            *handle = 1;
            return kNotesNoError;
        };
        notes_api.OSLockObject = [](DHANDLE) -> void* {
            static char buffer[32768];
            return buffer;
        };
    }
};
