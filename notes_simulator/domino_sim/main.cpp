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
    const std::unique_ptr<CLI::App> app = domino_sim::commandTree();
    try {
        app->parse(argc, argv);
        return 0;
    } catch (const CLI::ParseError& error) {
        return app->exit(error) == 0 ? 0 : kExitUsage;
    } catch (const domino_sim::CheckFailed& error) {
        std::cerr << "domino-sim: " << error.what() << '\n';
        return kExitCheckFailed;
    } catch (const std::exception& error) {
        std::cerr << "domino-sim: " << error.what() << '\n';
        return kExitFailed;
    }
}
