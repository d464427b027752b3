#include "reference/command_text.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln::reference {

namespace {

std::string fish_quoted(const std::string& text) {
    std::string quoted = "'";
    for (char letter : text)
        quoted +=
            letter == '\'' || letter == '\\' ? std::string("\\") + letter : std::string(1, letter);
    return quoted + "'";
}

std::string fish_values(const OptionText& option) {
    if (!option.choices.empty())
        return " -x -a " + fish_quoted(joined(option.choices, " "));
    switch (option.kind) {
    case ValueKind::none:
        return "";
    case ValueKind::file:
        return " -r -F";
    case ValueKind::folder:
        return " -x -a '(__fish_complete_directories)'";
    default:
        return " -x";
    }
}

// A name, or the full path of something, which alone is completed.
std::string fish_arguments(const CommandText& command, const std::string& start,
                           const std::string& at) {
    std::string text;
    for (const OptionText& argument : command.arguments)
        text +=
            argument.kind == ValueKind::folder
                ? fmt::format("{} -n \"{}\" -a '(__fish_complete_directories)'\n", start, at)
            : argument.kind == ValueKind::file
                ? fmt::format("{} -n \"{}\" -F\n", start, at)
                : fmt::format("{} -n \"{}; and string match -q '/*' -- (commandline -ct)\" -F\n",
                              start, at);
    return text;
}

constexpr const char* fish_text =
    R"(# Completion of {program} for fish, made of its table of commands.
function __{function}_command
    set -l command
    for word in (commandline -opc)[2..-1]
        switch "$command $word"
            case {paths}
                set command "$command $word"
        end
    end
    echo "$command"
end

function __{function}_at
    test x(__{function}_command) = x"$argv[1]"
end

complete -c {program} -f
)";

} // namespace

std::string fish_completion(const CommandText& program) {
    const std::string& name = program.words.front();
    const std::string start = "complete -c " + name;
    std::string function = name, text;
    std::replace(function.begin(), function.end(), '-', '_');
    std::vector<std::string> paths;
    for (const CommandText* command : all_of(program)) {
        if (command != &program)
            paths.push_back(fish_quoted(typed_path(*command)));
        const std::string at = fmt::format("__{}_at '{}'", function, typed_path(*command));
        for (const CommandText& below : command->commands)
            text += fmt::format("{} -n \"{}\" -a {} -d {}\n", start, at, below.words.back(),
                                fish_quoted(short_help(below.help)));
        for (const OptionText& option : command->options) {
            std::string names;
            for (const std::string& option_name : option.names)
                names += option_name.starts_with("--") ? " -l " + option_name.substr(2)
                                                       : " -s " + option_name.substr(1);
            text += fmt::format("{} -n \"{}\"{}{} -d {}\n", start, at, names, fish_values(option),
                                fish_quoted(short_help(option.help)));
        }
        text += fish_arguments(*command, start, at);
    }
    return fmt::format(fish_text, fmt::arg("program", name), fmt::arg("function", function),
                       fmt::arg("paths", joined(paths, " "))) +
           text;
}

} // namespace qrtln::reference
