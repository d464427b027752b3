#include "reference/command_text.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln::reference {

namespace {

// A text within '...', with the characters of `marks` taken literally by what reads it.
std::string zsh_quoted(const std::string& text, std::string_view marks) {
    std::string quoted;
    for (char letter : text)
        if (letter == '\'')
            quoted += "'\\''";
        else if (marks.find(letter) != std::string_view::npos)
            quoted += std::string("\\") + letter;
        else
            quoted += letter;
    return quoted;
}

std::string zsh_action(const OptionText& option) {
    if (!option.choices.empty())
        return "(" + joined(option.choices, " ") + ")";
    switch (option.kind) {
    case ValueKind::file:
        return "_files";
    case ValueKind::folder:
        return "_path_files -/";
    default: // a name, or the full path of something
        return option.names.empty() ? "{ [[ $PREFIX == /* ]] && _files }" : " ";
    }
}

// "--name=" takes its value as the next word, too.
std::string zsh_option(const OptionText& option) {
    std::string text;
    for (const std::string& name : option.names) {
        const bool with_value = option.kind != ValueKind::none;
        text += fmt::format("        '{}{}{}[{}]",
                            option.repeatable ? "*" : "(" + joined(option.names, " ") + ")", name,
                            with_value && name.starts_with("--") ? "=" : "",
                            zsh_quoted(short_help(option.help), "[]\\"));
        if (with_value)
            text += fmt::format(":{}:{}", zsh_quoted(option.value, ":\\"), zsh_action(option));
        text += "' \\\n";
    }
    return text;
}

std::string zsh_function(const CommandText& command) {
    std::string name = "_" + joined(command.words, "_");
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

// A command with commands of its own: the first word decides who goes on.
std::string zsh_group(const CommandText& command, const std::string& options) {
    std::string names, ways;
    for (const CommandText& below : command.commands) {
        names += fmt::format("        '{}:{}'\n", below.words.back(),
                             zsh_quoted(short_help(below.help), ""));
        ways += fmt::format("    {}) {} ;;\n", below.words.back(), zsh_function(below));
    }
    const std::string function = zsh_function(command);
    return fmt::format(
        "{0}_commands() {{\n    local -a commands=(\n{1}    )\n"
        "    _describe command commands\n}}\n\n"
        "{0}() {{\n    local context state state_descr line\n    typeset -A opt_args\n"
        "    _arguments -C \\\n{2}        '1:command:{0}_commands' \\\n"
        "        '*::: :->arguments' && return\n"
        "    [[ $state == arguments ]] || return 1\n"
        "    words=($line[1] \"${{words[@]}}\")\n    (( CURRENT += 1 ))\n"
        "    case $line[1] in\n{3}    esac\n}}\n\n",
        function, names, options, ways);
}

std::string zsh_leaf(const CommandText& command, const std::string& options) {
    std::string arguments;
    for (const OptionText& argument : command.arguments)
        arguments += fmt::format("        '{}:{}:{}' \\\n", argument.repeatable ? "*" : "",
                                 zsh_quoted(argument.value, ":\\"), zsh_action(argument));
    return fmt::format("{}() {{\n    _arguments -S \\\n{}{}        && return\n}}\n\n",
                       zsh_function(command), options, arguments);
}

} // namespace

std::string zsh_completion(const CommandText& program) {
    const std::string& name = program.words.front();
    std::string text =
        fmt::format("#compdef {0}\n"
                    "# Completion of {0} for zsh, made of its table of commands.\n\n",
                    name);
    for (const CommandText* command : all_of(program)) {
        std::string options;
        for (const OptionText& option : command->options)
            options += zsh_option(option);
        text +=
            command->commands.empty() ? zsh_leaf(*command, options) : zsh_group(*command, options);
    }
    // It is read as the function itself, or as a file.
    return text + fmt::format("if [[ $funcstack[1] == _{0} ]]; then\n    {1} \"$@\"\n"
                              "else\n    compdef {1} {0}\nfi\n",
                              name, zsh_function(program));
}

} // namespace qrtln::reference
