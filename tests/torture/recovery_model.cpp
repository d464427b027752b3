// Random histories of two simulated servers with one store: users' work, what befalls databases,
// logs, clocks and disks, and backups, restores and recoveries in between, some of which fail or
// are killed. Every command is held to the same rules (model_rules.cpp): what was told is so, what
// was not named is as before, every log that left a server is whole in the store, every database
// that changed is in a set, or owed, or named.
//
//   recovery_model [--histories N] [--steps N] [--seed FIRST] [--calm] [--qrtln FILE] [--verbose]
//
// Prints a line for each history; one ends at the first rule that does not hold, with its seed.
// Ends with 1 when there is any.
#include "tests/torture/model.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>

namespace fs = std::filesystem;
using namespace qrtln::torture;

namespace {

struct Options {
    int histories = 12;
    std::uint64_t seed = 1;
    std::string qrtln = QRTLN_EXECUTABLE;
    bool keep = false;
    ModelOptions model;
};

// A folder that goes away with the object.
class Folder {
  public:
    explicit Folder(bool keep) : m_keep(keep) {
        std::string pattern = (fs::temp_directory_path() / "qrtln-model_XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("cannot create " + pattern);
        m_path = pattern;
    }
    ~Folder() {
        std::error_code ignored;
        if (m_keep)
            std::cout << "  kept: " << m_path << "\n";
        else
            fs::remove_all(m_path, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    const std::string& path() const { return m_path; }

  private:
    std::string m_path;
    bool m_keep;
};

// Every process of a history reads the model's clock, this one too.
void run_altered(char** argv, const std::string& clock) {
    std::ofstream(clock, std::ios::binary) << std::string(sizeof(SharedClock), '\0');
    ::setenv(clock_variable, clock.c_str(), 1);
    ::setenv("LD_PRELOAD", QRTLN_ALTERED_PROCESS, 1);
    ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0", 1);
    ::setenv("TZ", "UTC", 1);
    ::execv("/proc/self/exe", argv);
    throw std::runtime_error("cannot start again with another clock");
}

// Returns whether every rule held.
bool run_history(const Options& options, std::uint64_t seed, std::map<std::string, int>& counts) {
    Folder folder(options.keep);
    Programs programs = {options.qrtln, QRTLN_DOMINO_SIM, QRTLN_SIMULATOR_DIRECTORY};
    ModelOptions choices = options.model;
    choices.calm = choices.calm || seed % 3 == 0;
    Model model(programs, std::getenv(clock_variable), folder.path(), seed, choices);
    std::string problem;
    try {
        model.run();
    } catch (const std::exception& failure) {
        problem = failure.what();
    }
    for (const auto& [step, count] : model.counts())
        counts[step] += count;
    std::cout << "seed " << seed << (choices.calm ? " (calm): " : ": ")
              << (problem.empty() ? "ok" : "VIOLATION at " + model.doing() + ": " + problem)
              << std::endl;
    return problem.empty();
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Plays random histories of servers and a store, and holds every command to rules"};
    Options options;
    app.add_option("--histories", options.histories, "How many")->capture_default_str();
    app.add_option("--steps", options.model.steps, "Of each")->capture_default_str();
    app.add_option("--seed", options.seed, "Of the first history")->capture_default_str();
    app.add_option("--qrtln", options.qrtln, "Another client, with the module beside it");
    app.add_flag("--calm", options.model.calm,
                 "No damage, no clock that changes, no killed backups");
    app.add_flag("--keep", options.keep, "Keep the folders of the histories");
    app.add_flag("--verbose", options.model.verbose, "Show every command");
    CLI11_PARSE(app, argc, argv);
    try {
        std::string clock =
            fs::temp_directory_path() / ("qrtln-clock_" + std::to_string(::getpid()));
        if (std::getenv(clock_variable) == nullptr)
            run_altered(argv, clock);
        std::map<std::string, int> counts;
        int violations = 0;
        for (int i = 0; i < options.histories; ++i)
            violations +=
                run_history(options, options.seed + static_cast<unsigned>(i), counts) ? 0 : 1;
        std::cout << options.histories << " histories, " << violations << " with a violation;";
        for (const auto& [step, count] : counts)
            std::cout << " " << step << " " << count;
        std::cout << std::endl;
        fs::remove(clock);
        return violations == 0 ? 0 : 1;
    } catch (const std::exception& failure) {
        std::cerr << "recovery_model: " << failure.what() << "\n";
        return 1;
    }
}
