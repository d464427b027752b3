// Runs a program with its child processes, under ptrace when it is to be killed at one of the calls
// by which it changes files.
#pragma once

#include <chrono>
#include <cstddef>
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
    std::size_t call = 0;              // just before this one, from 1; 0: at none
    std::chrono::microseconds after{}; // the start, without a call; 0: never
};

struct Run {
    int exit_code = -1; // minus the signal for a process that a signal ended
    std::string output;
    std::string errors;
    std::size_t calls = 0; // that change files, of all its processes, when it was traced
    bool killed = false;

    // What it printed, null when that is nothing.
    nlohmann::json document() const {
        return output.empty() ? nlohmann::json() : nlohmann::json::parse(output);
    }
};

using Environment = std::map<std::string, std::string>;

// Looks on while a program is traced.
class CallObserver {
  public:
    virtual ~CallObserver() = default;
    // A call that changes files is about to happen.
    virtual void before_call() {}
    // A flush succeeded: of the file that this path below /proc opens, even when it was removed.
    virtual void flushed(const std::string& /*descriptor*/) {}
};

// A program that runs, words[0] with these words. `scratch` is a folder for what it prints.
// REQUIRES: one traced or started program at a time.
class Started {
  public:
    Started(const std::vector<std::string>& words, const Environment& environment,
            const std::string& scratch, bool traced = false);
    ~Started();
    Started(const Started&) = delete;
    Started& operator=(const Started&) = delete;
    pid_t pid() const { return m_pid; } // leads a process group of its own
    bool ended();                       // does not wait
    Run finish();                       // waits
    Run finish(int status);             // when it was waited for

  private:
    std::string m_scratch;
    pid_t m_pid = -1;
    int m_status = 0;
};

// Runs it to its end, or kills it; a process that outlives a killed client goes on. It is traced
// for a kill at a call or for an observer. Throws std::runtime_error.
Run run_program(const std::vector<std::string>& words, const Environment& environment,
                const std::string& scratch, Kill kill = {}, CallObserver* observer = nullptr);

} // namespace qrtln::torture
