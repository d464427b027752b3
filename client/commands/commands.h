// The table of the commands.
#pragma once

#include "client/commands/command.h"

#include <span>

namespace qrtln {

// In the order in which the help lists them.
std::span<const Command* const> all_commands();

} // namespace qrtln
