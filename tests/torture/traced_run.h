// Runs a program with its child processes under ptrace, so that it can be killed at any one of the
// calls by which it changes files.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace qrtln::torture {

enum class Victim {
    everything,    // as a power cut does, apart from what the disk had not got yet
    client,        // the module's process is told, and ends by itself
    module_process // the client sees it go
};

const char* victim_name(Victim victim);

struct Kill {
    Victim victim = Victim::everything;
    std::size_t call = 0; // just before this one, from 1; 0: never
};

// The name of the call by which the module removes a copy that is in its place now.
inline constexpr const char* removal_of_copy = "remove copy";

struct Run {
    int exit_code = -1; // minus the signal for a process that a signal ended
    std::string output;
    std::string errors;
    std::vector<std::string> calls; // names of those that change files, of all its processes
    bool killed = false;
};

using Environment = std::map<std::string, std::string>;

// Looks on while a program is traced. A file is named by its descriptor, as a path below /proc that
// opens it even when it was removed.
class CallObserver {
  public:
    virtual ~CallObserver() = default;
    // A call that changes files is about to happen.
    virtual void before_call() {}
    // Whether a flush, which is about to happen, does nothing and yet succeeds.
    virtual bool ignores_flush(const std::string& /*descriptor*/) { return false; }
    // A flush succeeded.
    virtual void flushed(const std::string& /*descriptor*/) {}
};

// Runs words[0] with these words to its end. With `traced` its calls are counted, and the kill is
// carried out; without, `kill` and `observer` are ignored. A process that outlives a killed client
// goes on untraced. `scratch` is a folder for what the program prints. Throws std::runtime_error.
Run run(const std::vector<std::string>& words, const Environment& environment,
        const std::string& scratch, bool traced = false, Kill kill = {},
        CallObserver* observer = nullptr);

// Runs it untraced, and kills after a time unless it has ended.
Run run_for(std::chrono::microseconds time, Victim victim, const std::vector<std::string>& words,
            const Environment& environment, const std::string& scratch);

// Starts it, without waiting; finish() waits. REQUIRES: one traced run or started program at a
// time.
class Started {
  public:
    Started(const std::vector<std::string>& words, const Environment& environment,
            const std::string& scratch, bool traced = false);
    ~Started();
    Started(const Started&) = delete;
    Started& operator=(const Started&) = delete;
    pid_t pid() const { return m_pid; } // leads a process group of its own
    bool ended();                       // does not wait
    Run finish(int status);
    Run finish();

  private:
    std::string m_scratch;
    pid_t m_pid = -1;
    int m_status = 0;
};

} // namespace qrtln::torture
