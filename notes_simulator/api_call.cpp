#include "notes_simulator/api_call.h"

#include "notes_simulator/slowness.h"
#include "notes_simulator/text_translation.h"

#include <unistd.h>

#include <new>

namespace notes_sim {

OpenBackup::~OpenBackup() {
    if (info >= 0) {
        ::close(info);
    }
}

Process& process() {
    // Never destroyed: a host may call from its own exit handlers.
    static Process* const instance = new Process;
    return *instance;
}

const Server& runningServer() {
    if (!process().server) {
        throw StatusError(kNotInitialised, "");
    }
    return *process().server;
}

const Server& knownServer() {
    if (!process().lastServer) {
        throw StatusError(kNotInitialised, "");
    }
    return *process().lastServer;
}

std::filesystem::path databaseFile(const Server& server, const char* path) {
    return server.resolve(translateText(Translation::kLmbcsToNative, path, 4096));
}

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

ApiCall::ApiCall(const char* function, std::string arguments)
    : m_lock(process().mutex), m_function(function), m_arguments(std::move(arguments)) {
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
