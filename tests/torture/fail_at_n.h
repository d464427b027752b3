// Every call of the server's library, every allocation of the module or every call of its on a file
// fails, one in each run.
#pragma once

#include <string>

inline constexpr char kNotesCalls[] = "fail_at_n";
inline constexpr char kAllocations[] = "allocations";
inline constexpr char kSystemCalls[] = "system_calls";

// What is run. An empty name stands for all.
struct Choice {
    std::string part;
    std::string scenario;
    std::string call;
    // Every occurrence of a call with every status or error; otherwise a few.
    bool longForm = false;
};

// Runs one part. Prints a line for each scenario and each complaint. Returns the number of runs
// that something was wrong with.
int failAtN(const Choice& choice);
