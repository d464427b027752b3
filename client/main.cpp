// qrtln: backs up a Domino server through its database module into a store, and restores it.

#include "client/acceptance/probe_process.h"
#include "client/commands/command_line.h"
#include "client/commands/commands.h"
#include "client/module/process.h"

#include <sys/stat.h>

int main(int argc, char** argv) {
    ::umask(077); // the store and the copies hold mail
    // This program, started anew by itself to load the server's library.
    if (qrtln::is_module_process(argc, argv))
        return qrtln::run_module_process(argc, argv);
    if (qrtln::acceptance::is_probe_process(argc, argv))
        return qrtln::acceptance::run_probe_process(argc, argv);
    return qrtln::run_command_line(qrtln::all_commands(), argc, argv);
}
