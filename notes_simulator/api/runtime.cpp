// The runtime: its beginning and end, and what it says of its server.
#include "notes_simulator/api/call.h"
#include "notes_simulator/engine/recovery_mark.h"
#include "notes_simulator/engine/transaction.h"
#include "notes_simulator/notes_simulator.h"
#include "notes_simulator/server/server_lock.h"
#include "notes_simulator/storage/leftover_journals.h"
#include "notes_simulator/storage/recording_vfs.h"

#include <cstdlib>

namespace fs = std::filesystem;
using namespace notes_sim;

namespace {

std::string argumentList(int argc, char** argv) {
    std::string text = std::to_string(argc);
    for (int i = 0; argv != nullptr && i < argc; ++i) {
        text += ", " + quoted(argv[i]);
    }
    return text;
}

fs::path findNotesIni(int argc, char** argv) {
    for (int i = 0; argv != nullptr && i < argc; ++i) {
        if (argv[i] != nullptr && argv[i][0] == '=') {
            return argv[i] + 1;
        }
    }
    std::error_code error;
    if (fs::exists("notes.ini", error)) {
        return "notes.ini";
    }
    const char* path = std::getenv("PATH");
    std::string_view left = path == nullptr ? "" : path;
    while (!left.empty()) {
        const auto colon = left.find(':');
        fs::path candidate = fs::path(left.substr(0, colon)) / "notes.ini";
        if (fs::exists(candidate, error)) {
            return candidate;
        }
        left.remove_prefix(colon == std::string_view::npos ? left.size() : colon + 1);
    }
    throw StatusError(kInvalidDirectory, "no notes.ini in the current directory or in PATH");
}

} // namespace

STATUS NotesInitExtended(int argc, char** argv) {
    return statusCall("NotesInitExtended", argumentList(argc, argv), [&](ApiCall& call) -> Status {
        if (!readFaultEnvironment()) {
            throw StatusError(kBadFaultText, "");
        }
        Process& self = process();
        const fs::path ini = findNotesIni(argc, argv);
        const Server server = openServerByIni(ini);
        closeEverything(self);
        self.server = server;
        self.lastServer = server;
        self.terminated = false;
        self.archivingDenied = false;
        setRecordingServer(server);
        // A recovery that another process is making holds the lock while it has a journal.
        const ServerLock lock(server);
        settleInterruptedRecoveries(server, lock);
        rollBackLeftoverJournals(server);
        call.output("companions", static_cast<std::uint64_t>(NotesSimCompanions()));
        call.output("data", server.data.c_str());
        return kOk;
    });
}

void NotesTerm(void) {
    valueCall("NotesTerm", "", 0, [&](ApiCall&) {
        Process& self = process();
        closeEverything(self);
        self.server.reset();
        self.terminated = true;
        clearRecordingServer();
        return 0;
    });
    journalSummary();
}

WORD OSGetDataDirectory(char* retPathName) {
    return valueCall("OSGetDataDirectory", "", WORD{0}, [&](ApiCall& call) -> WORD {
        require(retPathName);
        const Server& server = runningServer();
        const std::string data = server.ini.get("SimDirectory").value_or(server.data.string());
        call.output("path", data.c_str());
        return copyText(data, retPathName, 1028);
    });
}

BOOL OSGetEnvironmentString(const char* VariableName, char* retValueBuffer, WORD BufferLength) {
    return valueCall("OSGetEnvironmentString", quoted(VariableName), BOOL{0},
                     [&](ApiCall& call) -> BOOL {
                         require(VariableName);
                         require(retValueBuffer);
                         const auto value = runningServer().ini.get(VariableName);
                         if (!value || value->size() >= BufferLength) {
                             return 0;
                         }
                         copyText(*value, retValueBuffer, BufferLength);
                         call.output("value", value->c_str());
                         return 1;
                     });
}
