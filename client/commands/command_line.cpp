#include "client/commands/command_line.h"

#include "client/base/error.h"
#include "client/base/nearest_word.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/base/version.h"
#include "client/store/store.h"

#include <cstdio>
#include <fmt/format.h>
#include <new>

namespace qrtln {

namespace {

constexpr const char* program_help =
    R"(qrtln backs up and restores a Domino server: databases, templates, configuration and
transaction logs, through the server's own backup interface, into a store in a
folder. Contents are kept once, compressed, and checked by their SHA-256.)";

// The parser takes "[a,b]" for a list of two values. As a name it is left alone when it is written
// "./[a,b]", which is the same path.
std::vector<std::string> without_lists(int argc, char** argv) {
    std::vector<std::string> arguments(argv, argv + argc);
    for (std::size_t i = 2; i < arguments.size(); ++i)
        if (arguments[i].starts_with('[') && arguments[i].ends_with(']'))
            arguments[i].insert(0, "./");
    return arguments;
}

void add_commands(CLI::App& app, std::span<const Command* const> commands, CommandRuns& runs) {
    app.set_version_flag("--version", fmt::format("qrtln {}", client_version()));
    app.require_subcommand(1);
    app.footer(exit_codes);
    for (const Command* command : commands) {
        CLI::App& added = *app.add_subcommand(command->name, command->help);
        added.footer(command->codes);
        command->add(added, runs);
    }
}

std::vector<const CLI::App*> commands_of(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

const CLI::App* find_command(const CLI::App& app, const std::string& name) {
    for (const CLI::App* command : commands_of(app))
        if (command->get_name() == name)
            return command;
    return nullptr;
}

std::vector<std::string> known_words(const CLI::App& command, bool options) {
    std::vector<std::string> known;
    if (options) {
        for (const CLI::Option* option : command.get_options())
            for (const std::string& name : option->get_lnames())
                known.push_back("--" + name);
        return known;
    }
    for (const CLI::App* other : commands_of(command))
        known.push_back(other->get_name());
    return known;
}

// A word of the command line that stands for nothing, and what it was probably meant to be, as a
// sentence; empty when there is nothing to say.
std::string probably_meant(const CLI::App& app, const std::vector<std::string>& arguments) {
    const CLI::App* command = &app;
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        const std::string word = arguments[i].substr(0, arguments[i].find('='));
        if (const CLI::App* found = find_command(*command, word)) {
            command = found;
            continue;
        }
        const bool option = word.starts_with("--");
        if (option && command->get_option_no_throw(word) != nullptr)
            continue;
        if (std::string near = nearest_word(word, known_words(*command, option)); !near.empty())
            return fmt::format("there is no '{}', did you mean '{}'?", for_terminal(word), near);
        if (command == &app && !word.starts_with("-"))
            return fmt::format("there is no command '{}'", for_terminal(word));
    }
    return {};
}

// `qrtln help` and `qrtln help COMMAND`.
bool print_help(const CLI::App& app, const std::vector<std::string>& arguments) {
    if (arguments.size() < 2 || arguments.size() > 3 || arguments[1] != "help")
        return false;
    const CLI::App* command = arguments.size() == 2 ? &app : find_command(app, arguments[2]);
    if (command == nullptr)
        return false;
    std::fputs(command->help().c_str(), stdout);
    return true;
}

// Returns the exit code where the command line ends here: with help, the version, or wrong usage.
std::optional<int> parse(CLI::App& app, const std::vector<std::string>& texts) {
    std::vector<const char*> arguments;
    for (const std::string& text : texts)
        arguments.push_back(text.c_str());
    try {
        app.parse(static_cast<int>(arguments.size()), arguments.data());
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        // 0 is --help or --version; everything else is wrong usage.
        if (error.get_exit_code() != 0)
            if (std::string meant = probably_meant(app, texts); !meant.empty())
                print_error(meant, "");
        return app.exit(error) == 0 ? 0 : static_cast<int>(ExitCode::usage);
    }
}

void report_failure(bool json, int code, const std::string& message, const std::string& hint) {
    print_error(message, hint);
    if (!json)
        return;
    nlohmann::json document = {
        {"exit_code", code}, {"status", "failed"}, {"error", printable_utf8(message)}};
    if (!hint.empty())
        document["hint"] = printable_utf8(hint);
    try {
        print_json(document);
    } catch (const ClientError& failure) {
        print_error(failure.what(), "");
    }
}

int run_and_report(const CommandRuns& runs) {
    constexpr int failed = static_cast<int>(ExitCode::failed);
    try {
        return runs.run_typed();
    } catch (const ClientError& failure) {
        std::string vanished = vanished_store_hint();
        report_failure(runs.json(), failure.exit_code(), failure.what(),
                       vanished.empty() ? failure.hint() : vanished);
        return failure.exit_code();
    } catch (const std::bad_alloc&) {
        report_failure(runs.json(), failed, "out of memory", "");
    } catch (const std::exception& failure) {
        report_failure(runs.json(), failed, std::string("unexpected failure: ") + failure.what(),
                       "");
    }
    return failed;
}

} // namespace

std::unique_ptr<CLI::App> command_tree(std::span<const Command* const> commands,
                                       CommandRuns& runs) {
    auto app = std::make_unique<CLI::App>(program_help, "qrtln");
    add_commands(*app, commands, runs);
    return app;
}

int run_command_line(std::span<const Command* const> commands, int argc, char** argv) {
    CommandRuns runs;
    const std::unique_ptr<CLI::App> tree = command_tree(commands, runs);
    CLI::App& app = *tree;
    const std::vector<std::string> texts = without_lists(argc, argv);
    if (print_help(app, texts))
        return static_cast<int>(ExitCode::complete);
    if (std::optional<int> ended = parse(app, texts))
        return *ended;
    return run_and_report(runs);
}

} // namespace qrtln
