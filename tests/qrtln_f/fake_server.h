// An operation of the module's upper floor on a server that answers from fields.
#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "common/bounded_text.h"
#include "notes_api/notes_api.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"
#include "tests/support/message_capture.h"
#include "tests/support/notes_api_fake.h"
#include "tests/support/temporary_folder.h"

// One database as the server sees it.
struct FakeDatabase {
    BOOL bLogged = FALSE;
    DWORD dwDbIId = 0;
    STATUS needStatus = kNotesNoError; // of the question whether it needs a backup
    DWORD dwSpanNeeded = 0;            // the answer to it
    bool bModified = false;            // since whatever time
};

constexpr WORD kNoLogging = 0xFFFF; // instead of a style

inline UNIVERSALNOTEID dbIId(DWORD number) {
    return {{{number, 0xA1B2C3D4}}, {{0x00000001, 0xFFFFFFFF}}};
}

// The base of the tests: a server, and a backup with a data directory and TMP_DIR in the folder of
// the test. In a text of a test "@" stands for that folder.
class FakeServer : public testing::Test, NotesApiFake {
  protected:
    FakeServer() {
        s_databases.clear();
        s_style = kLogStyleArchive;
        s_runTimeDirectory = folder.makeDirectory("run");
        folder.makeDirectory("data");
        folder.makeDirectory("tmp");
        set(g_sQRTLN_Global.szNotesDataDirectory, "@/data/");
        set(g_sQRTLN_Global.szTmpDir, "@/tmp");
        g_sQRTLN_Global.eI_OperationType = DB_TYPE_BCK;
        g_sQRTLN_Global.eI_OperationLevel = DB_LEVEL_FULL;
        g_sQRTLN_Global.bNotesInitialized = TRUE;
        g_sQRTLN_Global.lhNotesFileList = CreateFIFOList();
        copyText(settings.DateString, ".");
        copyText(settings.TimeString, ":");
        memory[1].resize(32768);
    }
    ~FakeServer() override {
        DestroyFIFOList(g_sQRTLN_Global.lhNotesFileList);
        DestroyFIFOList(g_sQRTLN_Global.lhArgumentFileList);
        g_sQRTLN_Global = QRTLN_Global{};
    }

    static std::string replaced(std::string text, const std::string& from, const std::string& to) {
        for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
            text.replace(at, from.size(), to);
        }
        return text;
    }
    std::string full(const std::string& text) const { return replaced(text, "@", folder.path()); }
    void set(char (&field)[kPathSize], const std::string& text) const {
        copyText(field, full(text).c_str());
    }

    // Creates a file below the data directory, for a database with what the server says of it.
    std::string add(const std::string& name, const FakeDatabase& database = {}) const {
        const std::string path = folder.write("data/" + name, "content of " + name);
        s_databases[path] = database;
        return path;
    }
    void addAll(const std::string& names) const {
        for (const std::string& name : split(names)) {
            add(name);
        }
    }
    // What lists hold is a text here, its names separated by blanks.
    static std::vector<std::string> split(const std::string& text) {
        std::istringstream words(text);
        return {std::istream_iterator<std::string>(words), {}};
    }
    void setQueue(LIST_INFO*& queue, const std::string& names) const {
        DestroyFIFOList(queue);
        queue = CreateFIFOList();
        for (const std::string& name : split(full(names))) {
            pushPath(queue, name.c_str(), DB_BACKUP_FILE_TYPE_DB);
        }
    }
    void setArguments(const std::string& names) const {
        setQueue(g_sQRTLN_Global.lhArgumentFileList, names);
    }
    // Takes everything out of a queue; the kind of each may be wanted as well.
    std::string drain(LIST_INFO* queue, bool inOrder = true, bool withKinds = false) const {
        std::vector<std::string> names;
        char szItem[kPathSize];
        unsigned int uiSize = 0;
        DB_BACKUP_FILE_TYPE kind = DB_BACKUP_FILE_TYPE_DB;
        while (PullFIFOItemLN(queue, szItem, &uiSize, &kind)) {
            names.push_back(replaced(szItem, folder.path(), "@") +
                            (withKinds ? ":" + std::to_string(kind) : ""));
        }
        if (!inOrder) {
            std::sort(names.begin(), names.end());
        }
        std::string text;
        for (const std::string& name : names) {
            text += (text.empty() ? "" : " ") + name;
        }
        return text;
    }
    std::string items() const { return drain(g_sQRTLN_Global.lhNotesFileList); }
    std::string sortedItems() const { return drain(g_sQRTLN_Global.lhNotesFileList, false); }

    // The text of the pending error, which is cleared; empty when there is none.
    std::string error() const {
        TYPE_DB_Error error = {};
        takeError(&error);
        return replaced(error.szDBErrorMsg, folder.path(), "@");
    }
    bool logged(const std::string& text) const { return messages.hasLog(full(text)); }
    long logsWith(const std::string& part) const {
        return std::count_if(
            messages.logs().begin(), messages.logs().end(),
            [&](const std::string& log) { return log.find(full(part)) != std::string::npos; });
    }

    const TemporaryFolder folder;
    MessageCapture messages;
    inline static std::map<std::string, FakeDatabase> s_databases;
    inline static WORD s_style;

  public:
    inline static std::string s_runTimeDirectory;

  private:
    // Every call succeeds and hands nothing out but those below.
    NotesAnswer answer(const NotesCall& call) override {
        const auto path = [&] { // the first argument
            return split(call.text).at(1);
        };
        if (call.function == "NSFDbOpen") {
            m_open = s_databases[path()];
        } else if (call.function == "NSFDbGetLogInfo") {
            return {.numbers = {static_cast<DWORD>(m_open.bLogged)}, .id = dbIId(m_open.dwDbIId)};
        } else if (call.function == "NSFGetTransLogStyle") {
            return {.status = s_style == kNoLogging ? kNotesLoggingNotInEffect : kNotesNoError,
                    .numbers = {s_style}};
        } else if (call.function == "NSFIsNewBackupNeeded") {
            const FakeDatabase& database = s_databases[path()];
            return {.status = database.needStatus, .numbers = {database.dwSpanNeeded}};
        } else if (call.function == "NSFDbGetModifiedNoteTable") {
            return {.status = m_open.bModified ? kNotesNoError : kNotesNoNoteModified,
                    .numbers = {1}};
        }
        return {.numbers = {1, 1}}; // a handle, and a database of one byte
    }
    std::string translated(WORD, const std::string& text) const override { return text; }
    std::string textOf(STATUS) const override { return "a status"; }

    FakeDatabase m_open;
};
