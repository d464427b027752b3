// domino-sim: plays a server and its users over the simulator's files.
#include "notes_simulator/domino_sim/cli.h"

#include <exception>
#include <iostream>

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitCheckFailed = 4;

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Plays a Domino server over a folder: makes one, changes its databases while "
                 "backups run, shows and checks what is in databases and their copies.\n\n"
                 "A SERVER is a folder made by init, with notes.ini, data/, logs/ and state/. A DB "
                 "is a database in its data directory, named relative to it. Library users find "
                 "the same server through libnotes.so and SERVER/notes.ini.\n\n"
                 "Exit status: 0 done, 1 failed, 2 wrong usage, 4 a database or copy is not as it "
                 "must be.",
                 "domino-sim"};
    app.require_subcommand(1);
    domino_sim::addInitCommands(app);
    domino_sim::addEditCommands(app);
    domino_sim::addShowCommands(app);
    domino_sim::addWorkloadCommand(app);
    domino_sim::addCheckCommand(app);
    domino_sim::addOfflineCommands(app);
    domino_sim::addHarmCommands(app);
    try {
        app.parse(argc, argv);
        return 0;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kExitUsage;
    } catch (const domino_sim::CheckFailed& error) {
        std::cerr << "domino-sim: " << error.what() << '\n';
        return kExitCheckFailed;
    } catch (const std::exception& error) {
        std::cerr << "domino-sim: " << error.what() << '\n';
        return kExitFailed;
    }
}
