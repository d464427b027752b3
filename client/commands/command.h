// What a command is: how it is typed, what its help says, which options it takes, and what it runs.
#pragma once

#include <CLI/CLI.hpp>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qrtln {

// The options of every command that say where settings come from and what is told of a run.
struct CommonOptions {
    std::string configuration;
    std::string profile;
    std::string progress = "auto";
    bool show_config = false;
    bool quiet = false;
};

// What a command line can come to: every command that can be run, with the values of its options.
class CommandRuns {
  public:
    // Makes the options of `command`, to be bound to it: the parser writes their values there. They
    // live as long as this. `run` returns the exit code or throws ClientError; it is called only
    // for the command that was typed. One with a member `json` takes --json.
    template <typename Options>
    Options& add(const CLI::App& command, int (*run)(const Options&)) {
        auto options = std::make_shared<Options>();
        const bool* json = nullptr;
        if constexpr (requires { options->json; })
            json = &options->json;
        m_runs.push_back({&command, [options, run] { return run(*options); }, json});
        return *options;
    }
    // Runs the command that was typed. REQUIRES for these two: the command line was parsed.
    int run_typed() const { return typed().run(); }
    // Whether it was asked for JSON, as far as it has that.
    bool json() const { return typed().json != nullptr && *typed().json; }

    CommonOptions common;

  private:
    struct Run {
        const CLI::App* command;
        std::function<int()> run;
        const bool* json;
    };
    const Run& typed() const {
        return *std::find_if(m_runs.begin(), m_runs.end(),
                             [](const Run& run) { return run.command->parsed(); });
    }

    std::vector<Run> m_runs;
};

// The exit codes, as the help of every command tells them.
inline constexpr const char* exit_codes = R"(Exit codes:
  0  complete                    10  no store at the given folder
  1  failed                      11  another process uses the store
  2  wrong usage                 12  this user may not use a file of the store, or run the server's library
  3  some items failed           13  no set or database of that name
  4  damage found                14  the module or the server's library failed
                                 15  the place elsewhere where the store lies failed
                                 16  transaction logs are missing: after a backup, which is stored
                                     all the same, take a full one; recover: to an earlier time
                           129, 130, 143  interrupted (SIGHUP, SIGINT, SIGTERM)
)";

struct Command {
    const char* name;
    const char* help; // what it does; the list of commands shows it too
    // Adds its options, or its own commands, and what each of them runs.
    void (*add)(CLI::App& command, CommandRuns& runs);
    const char* codes = exit_codes; // below its help
};

// All there are, each in a file of its name; the help lists them in the order of commands.cpp.
extern const Command init_command;
extern const Command backup_command;
extern const Command restore_command;
extern const Command documents_command;
extern const Command recover_command;
extern const Command prove_command;
extern const Command check_command;
extern const Command list_command;
extern const Command status_command;
extern const Command find_command;
extern const Command show_command;
extern const Command diff_command;
extern const Command verify_command;
extern const Command copy_command;
extern const Command forget_command;
extern const Command extract_command;
extern const Command dump_command;
extern const Command convert_command;
extern const Command key_command;
extern const Command lock_command;

} // namespace qrtln
