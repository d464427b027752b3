#include "client/commands/commands.h"

#include <array>

namespace qrtln {

std::span<const Command* const> all_commands() {
    static constexpr std::array commands = {
        &backup_command, &restore_command, &documents_command, &recover_command, &prove_command,
        &check_command,  &list_command,    &status_command,    &find_command,    &show_command,
        &diff_command,   &verify_command,  &forget_command,    &copy_command,    &extract_command,
        &dump_command,   &init_command,    &key_command,       &convert_command, &lock_command,
    };
    return commands;
}

} // namespace qrtln
