#include "client/commands/command_line.h"

#include "client/base/error.h"
#include "client/base/nearest_word.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/base/version.h"
#include "client/commands/settings.h"
#include "client/store/store.h"

#include <algorithm>
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

std::vector<CLI::App*> commands_of(CLI::App& app) {
    return app.get_subcommands([](CLI::App*) { return true; });
}

std::vector<const CLI::App*> commands_of(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

void add_commands(CLI::App& app, std::span<const Command* const> commands, CommandRuns& runs) {
    app.set_version_flag("--version", fmt::format("qrtln {}", client_version()));
    app.require_subcommand(1);
    app.footer(exit_codes);
    for (const Command* command : commands) {
        CLI::App& added = *app.add_subcommand(command->name, command->help);
        added.footer(command->codes);
        command->add(added, runs);
        for (CLI::App* runnable :
             commands_of(added).empty() ? std::vector{&added} : commands_of(added))
            add_common_options(*runnable, runs.common);
    }
}

const CLI::App* command_named(const CLI::App& app, const std::string& name) {
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
        if (const CLI::App* found = command_named(*command, word)) {
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
    const CLI::App* command = arguments.size() == 2 ? &app : command_named(app, arguments[2]);
    if (command == nullptr)
        return false;
    std::fputs(command->help().c_str(), stdout);
    return true;
}

bool asks_for_json(const std::vector<std::string>& texts) {
    return std::find(texts.begin(), std::find(texts.begin(), texts.end(), "--"), "--json") !=
           std::find(texts.begin(), texts.end(), "--");
}

// What was wrong with the command line, and what helps.
void report_usage(CLI::App& app, const CLI::ParseError& error,
                  const std::vector<std::string>& texts, const std::string& origins) {
    std::string hint;
    if (!origins.empty())
        hint = "set elsewhere: " + origins;
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr &&
        std::string_view(error.what()).starts_with("--")) // of an option, not of a command
        hint = fmt::format("give it, set QRTLN_NAME in the environment, or write it into {}",
                           usual_configuration_file);
    const std::string meant = probably_meant(app, texts);
    if (!meant.empty())
        print_error(meant, "");
    (void)app.exit(error);
    if (!hint.empty())
        print_message("  hint: " + hint);
    if (asks_for_json(texts))
        print_json_error(static_cast<int>(ExitCode::usage), error.what(),
                         meant.empty() ? hint : meant);
}

ProgressStyle progress_style(const std::string& word) {
    return word == "always"  ? ProgressStyle::always
           : word == "lines" ? ProgressStyle::lines
           : word == "never" ? ProgressStyle::never
                             : ProgressStyle::automatic;
}

void report_failure(bool json, int code, const std::string& message, const std::string& hint) {
    print_error(message, hint);
    if (!json)
        return;
    try {
        print_json_error(code, message, hint);
    } catch (const ClientError& failure) {
        print_error(failure.what(), "");
    }
}

int run_typed(CLI::App& app, const CommandRuns& runs, const std::vector<std::string>& texts) {
    Settings settings(app);
    const std::vector<std::string> completed = settings.complete(texts);
    std::vector<const char*> arguments;
    arguments.reserve(completed.size());
    for (const std::string& text : completed)
        arguments.push_back(text.c_str());
    try {
        app.parse(static_cast<int>(arguments.size()), arguments.data());
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) // --help or --version
            return app.exit(error);
        report_usage(app, error, texts, settings.origins());
        return static_cast<int>(ExitCode::usage);
    }
    configure_output(progress_style(runs.common.progress), runs.common.quiet);
    if (runs.common.show_config) {
        settings.print(runs.json());
        return static_cast<int>(ExitCode::complete);
    }
    return runs.run_typed();
}

int run_and_report(CLI::App& app, const CommandRuns& runs, const std::vector<std::string>& texts) {
    constexpr int failed = static_cast<int>(ExitCode::failed);
    const bool json = asks_for_json(texts);
    try {
        return run_typed(app, runs, texts);
    } catch (const ClientError& failure) {
        std::string vanished = vanished_store_hint();
        report_failure(json, failure.exit_code(), failure.what(),
                       vanished.empty() ? failure.hint() : vanished);
        return failure.exit_code();
    } catch (const std::bad_alloc&) {
        report_failure(json, failed, "out of memory", "");
    } catch (const std::exception& failure) {
        report_failure(json, failed, std::string("unexpected failure: ") + failure.what(), "");
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
    configure_output(ProgressStyle::automatic, false); // until its options are read
    CommandRuns runs;
    const std::unique_ptr<CLI::App> tree = command_tree(commands, runs);
    CLI::App& app = *tree;
    const std::vector<std::string> texts = without_lists(argc, argv);
    if (print_help(app, texts))
        return static_cast<int>(ExitCode::complete);
    return run_and_report(app, runs, texts);
}

} // namespace qrtln
