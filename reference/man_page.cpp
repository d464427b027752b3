#include "reference/command_text.h"

#include <algorithm>
#include <fmt/format.h>
#include <string_view>

namespace qrtln::reference {

namespace {

// A text as a paragraph of scdoc, whose marks are marks nowhere in it. One line, as a line that
// begins with a blank or a mark would be something else.
std::string paragraph(const std::string& text) {
    std::string escaped;
    for (char letter : text) {
        if (letter == '\n')
            letter = ' ';
        const bool begins = escaped.empty();
        if (letter == '\\' || letter == '*' || letter == '_' ||
            (begins && std::string_view("#-.[]|;`+").find(letter) != std::string_view::npos))
            escaped += '\\';
        if (!begins || letter != ' ')
            escaped += letter;
    }
    return escaped;
}

std::string bold(const std::string& text) {
    return "*" + paragraph(text) + "*";
}

std::string underlined(const std::string& text) {
    return "_" + paragraph(text) + "_";
}

std::string sentence(const std::string& text) {
    return text.empty() || text.ends_with('.') ? text : text + ".";
}

std::string page_name(const CommandText& command) {
    return joined(command.words, "-");
}

std::string page_reference(const CommandText& command) {
    return bold(page_name(command)) + "(1)";
}

std::string argument_text(const OptionText& argument) {
    std::string text = underlined(argument.value) + (argument.repeatable ? "..." : "");
    return argument.required ? text : "[" + text + "]";
}

std::string synopsis(const CommandText& command) {
    std::string text = bold(joined(command.words, " "));
    if (!command.commands.empty())
        return text + " _COMMAND_ ...";
    bool others = false;
    for (const OptionText& option : command.options)
        if (option.required)
            text += " " + bold(option.names.front()) + " " + underlined(option.value);
        else
            others = true;
    if (others)
        text += " [_OPTION_...]";
    for (const OptionText& argument : command.arguments)
        text += " " + argument_text(argument);
    return text;
}

// Its description, and what else holds for it.
std::string option_paragraph(const OptionText& option) {
    std::string text = sentence(paragraph(option.help));
    auto add = [&text](const std::string& more) { text += (text.empty() ? "" : " ") + more; };
    if (!option.range.empty())
        add("From " + option.range + ".");
    if (!option.default_value.empty())
        add("By itself " + bold(option.default_value) + ".");
    if (!option.environment.empty())
        add("The environment's " + bold(option.environment) + " stands in for it.");
    for (const std::string& other : option.needs)
        add("Only with " + bold(other) + ".");
    for (const std::string& other : option.excludes)
        add("Not with " + bold(other) + ".");
    if (option.required && !option.names.empty())
        add("Required.");
    return text;
}

std::string options_section(const CommandText& command) {
    std::string text;
    for (const OptionText& argument : command.arguments)
        text += fmt::format("{}\n\t{}\n\n", underlined(argument.value), option_paragraph(argument));
    for (const OptionText& option : command.options) {
        std::string names;
        for (const std::string& name : option.names)
            names += (names.empty() ? "" : ", ") + bold(name);
        if (!option.value.empty())
            names += " " + underlined(option.value);
        text += fmt::format("{}\n\t{}\n\n", names, option_paragraph(option));
    }
    return text.empty() ? text : "# OPTIONS\n\n" + text;
}

std::string commands_section(const CommandText& command) {
    std::string text;
    for (const CommandText& below : command.commands)
        text += fmt::format("{}\n\t{}\n\n", page_reference(below), sentence(paragraph(below.help)));
    return text.empty() ? text : "# COMMANDS\n\n" + text;
}

std::string exit_codes_section(const CommandText& command) {
    std::string codes = command.exit_codes;
    if (codes.starts_with("Exit codes:\n"))
        codes.erase(0, codes.find('\n') + 1);
    while (codes.ends_with('\n'))
        codes.pop_back();
    return codes.empty() ? codes : "# EXIT CODES\n\n```\n" + codes + "\n```\n\n";
}

// The program's page, and those of the commands beside and below this one.
std::string see_also(const CommandText& command, const CommandText& program) {
    std::string text;
    auto add = [&](const CommandText& other) {
        if (&other != &command)
            text += (text.empty() ? "" : ", ") + page_reference(other);
    };
    add(program);
    for (const CommandText* other : all_of(program))
        if (other != &program &&
            other->words.size() == std::max<std::size_t>(command.words.size(), 2))
            add(*other);
    return text.empty() ? text : "# SEE ALSO\n\n" + text + "\n";
}

std::string description(const std::string& help) {
    std::string text;
    for (std::size_t begin = 0; begin < help.size();) {
        std::size_t end = std::min(help.find("\n\n", begin), help.size());
        text += sentence(paragraph(help.substr(begin, end - begin))) + "\n\n";
        begin = end + 2;
    }
    return text;
}

} // namespace

std::string man_page(const CommandText& command, const CommandText& program,
                     const std::string& more) {
    // What "name - text" says is looked for by apropos: one line.
    std::string page =
        fmt::format("{}(1)\n\n# NAME\n\n{} - {}\n\n# SYNOPSIS\n\n{}\n\n", page_name(command),
                    page_name(command), paragraph(short_help(command.help)), synopsis(command));
    page += "# DESCRIPTION\n\n" + description(command.help);
    page += commands_section(command) + options_section(command) + exit_codes_section(command);
    if (&command == &program)
        page += more;
    return page + see_also(command, program);
}

} // namespace qrtln::reference
