// Writes the manual pages and completions of qrtln into a folder, for packages: qrtln-reference
// FOLDER
#include "client/commands/command_line.h"
#include "client/commands/commands.h"
#include "reference/command_text.h"

#include <cstdio>
#include <cstdlib>

namespace {

// What no option stands for, on the page of the program.
constexpr const char* environment_section = R"(# ENVIRONMENT

*Notes\_ExecDirectory*
	The folder of the server's *libnotes.so*. By itself the one that notes.ini names as NotesProgram.

*TMPDIR*
	What *--tmp-dir* is by itself, else */var/tmp*.

*TZ*
	The time zone. It must be the server's.

Options tell which variables stand in for them.

# SCHEDULE

*qrtln-systemd*(7) has the timers.

)";

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: qrtln-reference FOLDER\n");
        return 2;
    }
    ::unsetenv("TMPDIR"); // it would be the default of options
    qrtln::CommandRuns runs;
    return qrtln::reference::write_reference(*qrtln::command_tree(qrtln::all_commands(), runs),
                                             argv[1], environment_section);
}
