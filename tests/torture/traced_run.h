// Runs a program with its child processes, under ptrace when it is to be killed at one of its calls
// of the system.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qrtln::torture {

enum class Victim {
    everything,    // as a power cut does, apart from what the disk had not got yet
    client,        // the module's process is told, and ends by itself
    module_process // the client sees it go
};

struct Kill {
    Victim victim = Victim::everything;
    std::size_t call = 0;   // just before this one that changes files, from 1; 0: at none
    std::size_t moment = 0; // at this beginning or end of any call, from 1; 0: at none
};

struct Run {
    int exit_code = -1; // minus the signal for a process that a signal ended
    std::string output = {};
    std::string errors = {};
    // Of all its processes, when it was traced.
    std::size_t calls = 0;   // that change files
    std::size_t moments = 0; // beginnings and ends of all calls
    bool killed = false;

    // What it printed, null when that is nothing.
    nlohmann::json document() const {
        return output.empty() ? nlohmann::json() : nlohmann::json::parse(output);
    }
};

using Environment = std::map<std::string, std::string>;

// Looks on while a program is traced.
struct CallObserver {
    // A call that changes files is about to happen.
    std::function<void()> before_call = [] {};
    // A flush succeeded: of the file that this path below /proc opens, even when it was removed.
    std::function<void(const std::string&)> flushed = [](const std::string&) {};
};

// A program that runs, words[0] with these words, in this environment and some more. `scratch` is a
// folder for what it prints.
// REQUIRES: one traced or started program at a time.
class Started {
  public:
    Started(const std::vector<std::string>& words, const Environment& more,
            const std::string& scratch, bool traced = false);
    ~Started();
    Started(const Started&) = delete;
    Started& operator=(const Started&) = delete;
    pid_t pid() const { return m_pid; }
    bool ended() const;  // does not wait
    Run finish();        // waits
    Run finish(Run run); // when it was waited for: adds what it printed

  private:
    std::string m_scratch;
    pid_t m_pid = -1;
};

// Runs it to its end, or kills it; a process that outlives a killed client goes on. It is traced
// for a kill or an observer. Throws std::runtime_error.
Run run_program(const std::vector<std::string>& words, const Environment& more,
                const std::string& scratch, Kill kill = {}, const CallObserver* observer = nullptr);

} // namespace qrtln::torture
