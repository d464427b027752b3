#include "notes_simulator/api/call.h"

#include "notes_simulator/server/slowness.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace notes_sim {

namespace {

bool isOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// In the mood "ended" the library is not there any more after NotesTerm. A caller that was denied
/// the archiving of logs may still end a session, and ask for the texts of what that answers.
void endAfterTermination(const char* function) {
    const Process& self = process();
    if (!self.terminated || !self.lastServer || !self.lastServer->moods.has(Mood::kEnded) ||
        isOneOf(function, {"NotesInitExtended"})) {
        return;
    }
    const bool allowed =
        self.archivingDenied &&
        isOneOf(function, {"NSFGetTransLogStyle", "NSFEndArchivingLogs", "OSLoadString"});
    std::fprintf(stderr, "libnotes (simulated): %s was called after NotesTerm%s\n", function,
                 allowed ? ", to end an archiving session" : ": the process ends");
    if (!allowed) {
        std::abort();
    }
}

} // namespace

std::string quoted(const char* text) {
    if (text == nullptr) {
        return "NULL";
    }
    std::string result = "\"";
    for (; *text != '\0'; ++text) {
        const char c = *text;
        if (c == '\n') {
            result += "\\n"; // a call is one line
        } else {
            result += c;
        }
    }
    return result + "\"";
}

std::uint16_t copyText(const std::string& text, char* buffer, std::uint16_t size) {
    if (size == 0) {
        return 0;
    }
    const std::size_t length = std::min<std::size_t>(text.size(), size - 1U);
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
    return static_cast<std::uint16_t>(length);
}

ApiCall::ApiCall(const char* function, std::string arguments)
    : m_lock(process().mutex), m_function(function), m_arguments(std::move(arguments)) {
    endAfterTermination(function);
    static_cast<void>(readFaultEnvironment()); // NotesInitExtended reports a text that is not valid
    m_fault = faultFor(function);
    const auto& server = process().server;
    if (server && server->moods.has(Mood::kSlow)) {
        const std::string list = server->ini.get("SimSlow").value_or("");
        const Slowness slowness = slownessOf(list, function);
        m_lock.unlock();
        dawdle(slowness);
        m_lock.lock();
    }
}

ApiCall::~ApiCall() {
    try {
        journalLine(std::string(m_function) + "(" + m_arguments + ")" +
                    (m_result.empty() ? "" : " -> " + m_result) + m_outputs +
                    (m_fault ? " [fault]" : ""));
    } catch (const std::exception&) {
        // A line that cannot be written must not change what the call does.
    }
}

Status ApiCall::answer(Status status) {
    Process& self = process();
    if (status == kOk) {
        return status;
    }
    self.archivingDenied = self.archivingDenied ||
                           isOneOf(m_function, {"NSFBeginArchivingLogs", "NSFGetTransLogStyle"});
    if (!self.lastServer || !self.lastServer->moods.has(Mood::kFlags)) {
        return status;
    }
    constexpr std::array<Status, 3> kFlags = {0x4000, 0x8000, 0xC000};
    return static_cast<Status>(status | kFlags[self.failures++ % kFlags.size()]);
}

void ApiCall::output(const char* name, std::uint64_t value) {
    m_outputs += std::string(" ") + name + "=" + std::to_string(value);
}

void ApiCall::output(const char* name, const char* text) {
    m_outputs += std::string(" ") + name + "=" + quoted(text);
}

Status currentExceptionStatus() noexcept {
    try {
        throw;
    } catch (const StatusError& error) {
        return error.status();
    } catch (const std::bad_alloc&) {
        return kOutOfMemory;
    } catch (...) {
        return kIoError;
    }
}

} // namespace notes_sim
