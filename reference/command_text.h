// What a command line takes, as texts: read off the tree that the program itself parses with, so
// that no page or completion can lag behind it.
#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace qrtln::reference {

enum class ValueKind { none, file, folder, other };

struct OptionText {
    std::vector<std::string> names; // with their dashes, long ones first; empty: an argument
    std::string value;              // what stands for its value; an argument's name
    ValueKind kind = ValueKind::none;
    std::vector<std::string> choices; // words that it takes
    std::string help;
    std::string default_value; // empty: none, or told by `help`
    std::string environment;   // the variable that stands in for it
    std::string range;         // "1 to 19"; empty: any
    bool required = false;
    bool repeatable = false;
    std::vector<std::string> needs;    // names of other options or arguments
    std::vector<std::string> excludes; // likewise
};

struct CommandText {
    std::vector<std::string> words; // as it is typed: {"qrtln", "documents", "deleted"}
    std::string help;               // paragraphs in lines of their own
    std::string exit_codes;         // as they are printed below the help
    std::vector<OptionText> options;
    std::vector<OptionText> arguments;
    std::vector<CommandText> commands;
};

// The tree below `app`, which is the program itself.
CommandText command_text(const CLI::App& app);

// All of the tree, a command ahead of its own.
std::vector<const CommandText*> all_of(const CommandText& program);

// The words with `between` them.
std::string joined(const std::vector<std::string>& words, const std::string& between);

// " documents deleted": what is typed behind the program's name.
std::string typed_path(const CommandText& command);

// What fits beside a completion: the first part of a help text.
std::string short_help(const std::string& help);

// The page for section 1, in the source form of scdoc; `more` are sections of the program's own
// page.
std::string man_page(const CommandText& command, const CommandText& program,
                     const std::string& more);

// Completions of the program, for the file that each shell loads.
std::string bash_completion(const CommandText& program);
std::string zsh_completion(const CommandText& program);
std::string fish_completion(const CommandText& program);

// Writes man/NAME.1.scd, bash/NAME, zsh/_NAME and fish/NAME.fish of the program into `folder`.
// Returns an exit code; what failed is told on standard error.
int write_reference(const CLI::App& app, const std::string& folder, const std::string& more);

} // namespace qrtln::reference
