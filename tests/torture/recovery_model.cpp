// Random histories of two simulated servers with one store: users' work, what befalls databases,
// logs, clocks and disks, and backups, restores and recoveries in between, some of which fail or
// are killed. Every command is held to the same rules (model_rules.cpp): what was told is so, what
// was not named is as before, every log that left a server is whole in the store, every database
// that changed is in a set, or owed, or named.
//
// Prints a line for each history; one ends at the first rule that does not hold, with its seed.
// Ends with 1 when there is any.
#include "tests/support/temporary_folder.h"
#include "tests/torture/model.h"

#include <CLI/CLI.hpp>

#include <iostream>

using namespace qrtln::torture;

namespace {

// Returns whether every rule held.
bool play_history(std::uint64_t seed, ModelOptions options) {
    options.calm = options.calm || seed % 3 == 0;
    TemporaryFolder folder;
    Model model(folder.path(), seed, options);
    std::string problem;
    try {
        model.play();
    } catch (const std::exception& failure) {
        problem = "VIOLATION at " + model.doing() + ": " + failure.what();
    }
    std::cout << "seed " << seed << (options.calm ? " (calm): " : ": ")
              << (problem.empty() ? "ok" : problem) << std::endl;
    return problem.empty();
}

} // namespace

int main(int argc, char** argv) try {
    CLI::App app{"Plays random histories of servers and a store, and holds every command to rules"};
    ModelOptions options;
    std::uint64_t histories = 12;
    std::uint64_t first = 1;
    app.add_option("--histories", histories, "How many")->capture_default_str();
    app.add_option("--seed", first, "Of the first history")->capture_default_str();
    app.add_flag("--calm", options.calm, "No damage, no clock that changes, no killed backups");
    app.add_flag("--verbose", options.verbose, "Show every command");
    CLI11_PARSE(app, argc, argv);
    be_altered(argv);
    int violations = 0;
    for (std::uint64_t seed = first; seed < first + histories; ++seed)
        violations += play_history(seed, options) ? 0 : 1;
    std::cout << histories << " histories, " << violations << " with a violation" << std::endl;
    return violations == 0 ? 0 : 1;
} catch (const std::exception& failure) {
    std::cerr << "recovery_model: " << failure.what() << "\n";
    return 1;
}
