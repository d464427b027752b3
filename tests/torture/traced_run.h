// Runs a program with its child processes, under ptrace when it is to be killed at one of its calls
// of the system.
#pragma once

#include "tests/support/files.h"
#include "tests/support/program.h"

#include <cstddef>
#include <functional>
#include <string>

namespace qrtln::torture {

using namespace test;

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

struct Run : Outcome {
    // Of all its processes, when it was traced.
    std::size_t calls = 0;   // that change files
    std::size_t moments = 0; // beginnings and ends of all calls, where no call is to be its last
    bool killed = false;
};

// Looks on while a program is traced.
struct CallObserver {
    // A call that changes files is about to happen.
    std::function<void()> before_call = [] {};
    // A flush succeeded: of the file that this path below /proc opens, even when it was removed.
    std::function<void(const std::string&)> flushed = [](const std::string&) {};
};

// Runs a program to its end, or kills it; a process that outlives a killed client goes on to its
// end. It is traced for a kill or an observer. Throws std::runtime_error. REQUIRES: no other child
// of this process runs.
Run run_program(const Words& words, const Environment& more = {}, Kill kill = {},
                const CallObserver* observer = nullptr);

} // namespace qrtln::torture
