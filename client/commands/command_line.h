// The command line: read by the table of commands, helped out where it is wrong, and run.
#pragma once

#include "client/commands/command.h"

#include <span>

namespace qrtln {

// What a command line is read by: `commands` with their options, which `runs` keeps, and the
// program's own. The reference is made of it, too.
std::unique_ptr<CLI::App> command_tree(std::span<const Command* const> commands, CommandRuns& runs);

// Reads the command line and runs the command that it names. Returns its exit code; what went wrong
// is told on standard error, and where JSON was asked for, on standard output too.
int run_command_line(std::span<const Command* const> commands, int argc, char** argv);

} // namespace qrtln
