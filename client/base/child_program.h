// Another program, run to its end.
#pragma once

#include <string>
#include <vector>

namespace qrtln {

// What exec takes: a null-terminated array of the texts, which must outlive it.
std::vector<char*> pointers_to(std::vector<std::string>& texts);

struct ProgramResult {
    int exit_code = -1; // minus the signal that ended it
    std::string output; // the beginning of its standard output, at most a mebibyte
    std::string errors; // likewise of standard error
};

// Runs `file` with these words (the first is its name) and no input, and waits for its end. It has
// the variables of this process but those that begin with `left_out`, where that is not empty. An
// interruption of this process is passed on to it. Throws ClientError(failed) where it cannot be
// started.
ProgramResult run_program(const std::string& file, std::vector<std::string> words,
                          const std::string& left_out);

} // namespace qrtln
