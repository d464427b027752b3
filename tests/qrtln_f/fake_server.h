// An operation of the module's upper floor on a server that answers from fields.
#pragma once

#include <map>

#include "notes_api/notes_api.h"
#include "tests/qrtln_lower/operation_test.h"
#include "tests/support/notes_api_fake.h"

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

inline std::string s_runTimeDirectory; // as the client's resolve_path has it

// The base of the tests: a server, and a backup with a data directory and TMP_DIR in the folder of
// the test.
class FakeServer : public OperationTest, NotesApiFake {
  protected:
    FakeServer() {
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

    // Creates a file below the data directory, for a database with what the server says of it.
    std::string add(const std::string& name, const FakeDatabase& database = {}) {
        const std::string path = folder.write("data/" + name, "content of " + name);
        databases[path] = database;
        return path;
    }
    void addAll(const std::string& names) {
        for (const std::string& name : split(names)) {
            add(name);
        }
    }
    void setArguments(const std::string& names) const {
        setQueue(g_sQRTLN_Global.lhArgumentFileList, names);
    }
    std::string items() const { return drain(g_sQRTLN_Global.lhNotesFileList); }
    std::string sortedItems() const { return drain(g_sQRTLN_Global.lhNotesFileList, false); }

    // Every call succeeds and hands nothing out but those below, and those that fail.
    NotesAnswer answer(const NotesCall& call) override {
        const std::string function(call.function);
        const std::string path = split(call.text + " -").at(1); // of the calls that have one
        ++calls[function];
        if (const auto failing = failures.find(function); failing != failures.end()) {
            return {.status = failing->second};
        }
        if (function == "NSFDbOpen") {
            m_open = databases[path];
        } else if (function == "NSFDbGetLogInfo") {
            return {.numbers = {static_cast<DWORD>(m_open.bLogged)}, .id = dbIId(m_open.dwDbIId)};
        } else if (function == "NSFGetTransLogStyle") {
            return {.status = style == kNoLogging ? kNotesLoggingNotInEffect : kNotesNoError,
                    .numbers = {style}};
        } else if (function == "NSFIsNewBackupNeeded") {
            return {.status = databases[path].needStatus,
                    .numbers = {databases[path].dwSpanNeeded}};
        } else if (function == "NSFDbGetModifiedNoteTable") {
            return {.status = m_open.bModified ? kNotesNoError : kNotesNoNoteModified,
                    .numbers = {1}};
        } else if (function == "NSFRecoverDatabases") {
            recovered += path + ",";
            return {};
        }
        return {.numbers = {1, 1}}; // a handle, and a database of one byte
    }

    std::map<std::string, FakeDatabase> databases;
    WORD style = kLogStyleArchive;
    std::map<std::string, STATUS> failures; // what functions answer
    std::map<std::string, int> calls;       // how often
    std::string recovered;                  // paths given to the server, each with a comma

  private:
    std::string translated(WORD, const std::string& text) const override { return text; }
    std::string textOf(STATUS) const override { return "a status"; }

    FakeDatabase m_open;
};
