// A server whose every answer comes from the input: it takes its statuses and outputs from a tape
// of bytes. An empty tape answers as a server would at which nothing goes wrong.
//
// What the module must not do ends the process: a handle used that was not given, or given back
// twice.
#pragma once

#include <algorithm>
#include <map>
#include <string>
#include <string_view>

#include "fuzz/support.h"
#include "tests/support/notes_api_fake.h"

namespace fuzz {

class TapedNotes : public NotesApiFake {
  public:
    explicit TapedNotes(std::string_view tape) : m_tape(tape) {}

    int archivedLogs() const { return m_archivedLogs; }
    bool holdsNothing() const { return m_held.empty(); }

    NotesAnswer answer(const NotesCall& call) override {
        const char given = takeHandles(call);
        const std::string_view function = call.function;
        NotesAnswer answer;
        if (function.starts_with("NSFGet") && function.ends_with("LogToArchive")) {
            return nextLog();
        }
        if (hasNoStatus(call, answer)) {
            return answer;
        }
        takeOutputs(call, answer);
        answer.status = nextStatus();
        // Also a backup that is in progress already has a context, which is to be ended.
        const bool isBackup = function == "NSFBackupStart";
        if (given != '\0' && (answer.status == kNotesNoError ||
                              (isBackup && answer.status == kNotesBackupInProgress))) {
            give(given, call, answer);
        }
        if (isBackup) {
            // The files have seven bytes; zeros stand for what the server says beyond them.
            const unsigned byte = next();
            answer.numbers.resize(1);
            answer.numbers.insert(answer.numbers.end(), {byte < 0xF0 ? byte % 8 : 70000, 0});
        }
        if (function == "NSFGetTransLogStyle" && answer.status == kNotesLoggingNotInEffect) {
            m_held.erase(m_lastLogged); // stays open by contract
        }
        return answer;
    }
    // One byte above 127 becomes three: a text may grow threefold.
    std::string translated(WORD, const std::string& text) const override {
        std::string result;
        for (const char c : text) {
            result += c;
            result.append(static_cast<unsigned char>(c) > 127 ? 2 : 0, '\x81');
        }
        return result;
    }
    std::string textOf(STATUS status) const override {
        return "status " + std::to_string(status) + " 100%n %s%%";
    }

  private:
    unsigned next() {
        if (m_tape.empty()) {
            return 0;
        }
        const auto byte = static_cast<unsigned char>(m_tape.front());
        m_tape.remove_prefix(1);
        return byte;
    }
    // Most bytes are a success, others a status that the module tells apart, or one of any kind.
    STATUS nextStatus() {
        constexpr STATUS failures[] = {259,  272,  499,  513, 572,    3748,   3758,  5086,
                                       5098, 5114, 5119, 1,   0x4000, 0xC103, 0xFFFF};
        const unsigned byte = next();
        return byte < 0xE0 ? kNotesNoError : failures[(byte - 0xE0) % std::size(failures)];
    }
    UNIVERSALNOTEID nextId() {
        const DWORD number = next();
        return {{{number, 0xC1258A4F}}, {{number << 24, 0xFFFFFFFF}}};
    }
    std::string nextDirectory(const std::string& usual) {
        switch (next()) {
        case 0xFF:
            return "";
        case 0xFE:
            return folder() + "/" + std::string(1026 - folder().size(), 'd');
        case 0xFD:
            return "relative";
        case 0xFC:
            return folder() + usual + "/";
        default:
            return folder() + usual;
        }
    }

    // Checks the handles of a call by the list of functions; returns the kind of one that comes
    // out.
    char takeHandles(const NotesCall& call) {
        static const std::map<std::string_view, std::string_view> functions = {
#define NOTES_FUNCTION(result, name, parameters, handles) {#name, handles},
#include "notes_api/functions.h"
        };
        const std::string_view kinds = functions.at(call.function);
        for (std::size_t i = 0; i < kinds.size(); ++i) {
            if (kinds[i] == '+') {
                return kinds[i + 1];
            }
            if (kinds[i] == '.') {
                continue;
            }
            const auto held = m_held.find(call.numbers[i]);
            require(held != m_held.end() && held->second == std::tolower(kinds[i]),
                    "what is used on the server is held, and of its kind");
            if (std::isupper(kinds[i]) != 0) {
                tables.erase(held->first);
                memory.erase(held->first);
                m_held.erase(held);
            }
        }
        return '\0';
    }

    void give(char kind, const NotesCall& call, NotesAnswer& answer) {
        const DHANDLE handle = ++m_lastHandle;
        m_held[handle] = kind;
        answer.numbers = {handle};
        if (kind == 'm') {
            memory[handle].resize(call.numbers[1]);
        } else if (call.function == "IDTableCopy") {
            tables[handle] = tables[call.numbers[0]];
        } else if (kind == 't') {
            tables[handle].resize(next() % 8);
            for (NOTEID& id : tables[handle]) {
                const unsigned byte = next();
                id = (byte & 0x7F) | ((byte & 0x80) << 24); // few ids, so that tables share some
            }
        }
    }

    NotesAnswer nextLog() {
        NotesAnswer answer = {.status = nextStatus()};
        const unsigned byte = next();
        answer.id = nextId();
        answer.numbers = {byte};
        if (m_tape.empty()) {
            answer.status = kNotesNoLogToArchive; // a server has an end of logs
        }
        const std::string log = nextDirectory("/log") + "/S" + std::to_string(byte) + ".TXN";
        answer.text = byte == 0xFF ? "S.TXN" : byte == 0xFE ? "" : log.substr(0, 1027);
        return answer;
    }

    // Answers the functions that have no status.
    bool hasNoStatus(const NotesCall& call, NotesAnswer& answer) {
        const std::string_view function = call.function;
        if (function == "OSGetDataDirectory") {
            answer.text = nextDirectory("/data");
        } else if (function == "OSGetEnvironmentString") {
            answer.text = nextDirectory("/program");
        } else if (function == "OSGetIntlSettings") {
            settings = INTLFORMAT{};
            settings.DateString[0] = next() < 0xF0 ? '.' : 'x';
            settings.TimeString[0] = ':';
        } else if (function == "ConvertTIMEDATEToText") {
            const unsigned byte = next();
            answer.text = byte < 0xF0 ? "21/11/2026 02:49" : "";
            if (byte >= 0xF0) {
                answer.numbers = {byte << 8}; // longer than any text
            }
        } else if (function == "NSFBackupGetNextChangeInfo") {
            const unsigned byte = next();
            answer.text.assign(byte == 0xFF ? call.numbers[3] : byte, 'Z');
        } else {
            return function == "NotesTerm" || function == "OSUnlockObject" ||
                   function == "IDEntries" || function == "IDScan" || function == "IDIsPresent";
        }
        return true;
    }

    // Takes what stands before the status on the tape.
    void takeOutputs(const NotesCall& call, NotesAnswer& answer) {
        const std::string_view function = call.function;
        if (function == "ConvertTextToTIMEDATE") {
            answer.numbers = {next(), 0x00258A4F};
        } else if (function == "SECKFMGetUserName") {
            answer.text.assign(next() < 0xF0 ? 5 : 256, 'u');
        } else if (function == "NSFDbGetBuildVersion") {
            answer.numbers = {next() * 2};
        } else if (function == "NSFDbIDGet") {
            nextId();
        } else if (function == "NSFDbGetLogInfo") {
            m_lastLogged = call.numbers[0];
            answer.numbers = {next() < 0xC0 ? 1U : 0U, 1};
            answer.id = nextId();
        } else if (function == "NSFRecoverDatabases") {
            answer.id = nextId();
            answer.text = folder() + "/log/S" + std::to_string(next()) + ".TXN";
            const unsigned number = next();
            if (next() >= 0xF0) {
                answer.text.clear();
            }
            answer.numbers = {next(), number};
        } else if (function == "NSFBackupGetChangeInfoSize" || function == "NSFIsNewBackupNeeded") {
            answer.numbers = {next(), 0};
        } else if (function == "NSFGetTransLogStyle") {
            const unsigned byte = next();
            answer.numbers = {byte < 0xC0 ? 1 : byte % 4};
        } else if (function == "NSFBackupApplyNextChangeInfo") {
            const std::string_view changes =
                std::string_view(call.text).substr(call.text.find('['));
            require(std::count(changes.begin(), changes.end(), 'Z') + 2 == std::ssize(changes),
                    "the changes that are applied are those that were fetched");
        } else if (function == "NSFDoneArchivingLog") {
            ++m_archivedLogs;
        }
    }

    std::string_view m_tape;
    std::map<DHANDLE, char> m_held; // by their kinds
    DHANDLE m_lastHandle = 0;
    DHANDLE m_lastLogged = 0; // the database whose log information was asked for last
    int m_archivedLogs = 0;
};

} // namespace fuzz
