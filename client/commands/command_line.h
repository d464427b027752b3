// The command line: read by the table of commands, helped out where it is wrong, and run.
#pragma once

#include "client/commands/command.h"

#include <span>

namespace qrtln {

// Reads the command line and runs the command that it names. Returns its exit code; what went wrong
// is told on standard error, and where JSON was asked for, on standard output too.
int run_command_line(std::span<const Command* const> commands, int argc, char** argv);

} // namespace qrtln
