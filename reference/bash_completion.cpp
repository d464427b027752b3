#include "reference/command_text.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln::reference {

namespace {

std::string bash_words(const CommandText& command) {
    std::vector<std::string> options, words;
    for (const OptionText& option : command.options)
        options.insert(options.end(), option.names.begin(), option.names.end());
    for (const CommandText& below : command.commands)
        words.push_back(below.words.back());
    std::string kind = words.empty() ? "path" : "words";
    for (const OptionText& argument : command.arguments)
        if (argument.kind != ValueKind::other && words.empty())
            kind = argument.kind == ValueKind::file ? "file" : "folder";
    return fmt::format("    '{}') kind={} words='{}' options='{}' ;;\n", typed_path(command), kind,
                       joined(words, " "), joined(options, " "));
}

// What a value of an option is completed with.
std::string bash_value(const CommandText& command, const OptionText& option) {
    std::string names;
    for (const std::string& name : option.names)
        names += fmt::format("{}'{} {}'", names.empty() ? "" : " | ", typed_path(command), name);
    const std::string what = !option.choices.empty()
                                 ? fmt::format("kind=words words='{}'", joined(option.choices, " "))
                             : option.kind == ValueKind::file   ? "kind=file"
                             : option.kind == ValueKind::folder ? "kind=folder"
                                                                : "kind=none";
    return fmt::format("    {}) {} ;;\n", names, what);
}

constexpr const char* bash_text =
    R"(# Completion of {program} for bash, made of its table of commands.
_{function}() {{
    local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD - 1]}}
    local command='' kind=none words='' options='' i
    COMPREPLY=()
    # "--option=value" comes as three words.
    if [[ $current == = ]]; then
        current=''
    elif [[ $previous == = && $COMP_CWORD -gt 1 ]]; then
        previous=${{COMP_WORDS[COMP_CWORD - 2]}}
    fi
    for ((i = 1; i < COMP_CWORD; i++)); do
        case "$command ${{COMP_WORDS[i]}}" in
        {paths}) command+=" ${{COMP_WORDS[i]}}" ;;
        esac
    done
    case "$command" in
{commands}    esac
    if [[ $current == -* ]]; then
        kind=words words=$options
    fi
    case "$command $previous" in
{values}    esac
    case $kind in
    words) mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current") ;;
    folder) mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
    file) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    path) [[ $current != /* ]] || mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    esac
    [[ $kind == words ]] || compopt -o filenames 2>/dev/null
    return 0
}}
complete -F _{function} {program}
)";

} // namespace

std::string bash_completion(const CommandText& program) {
    std::string commands, values;
    std::vector<std::string> paths;
    for (const CommandText* command : all_of(program)) {
        if (command != &program)
            paths.push_back("'" + typed_path(*command) + "'");
        commands += bash_words(*command);
        for (const OptionText& option : command->options)
            if (option.kind != ValueKind::none)
                values += bash_value(*command, option);
    }
    const std::string& name = program.words.front();
    std::string function = name;
    std::replace(function.begin(), function.end(), '-', '_');
    return fmt::format(bash_text, fmt::arg("program", name), fmt::arg("function", function),
                       fmt::arg("paths", joined(paths, " | ")), fmt::arg("commands", commands),
                       fmt::arg("values", values));
}

} // namespace qrtln::reference
