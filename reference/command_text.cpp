#include "reference/command_text.h"

#include <algorithm>

namespace qrtln::reference {

namespace {

// The words of the first {...} in the name of a type, where validators leave them. Those of a
// translation are "word->value".
std::vector<std::string> choices_in(const std::string& type) {
    std::vector<std::string> words;
    std::size_t open = type.find('{');
    std::size_t close = type.find('}', open == std::string::npos ? type.size() : open);
    if (close == std::string::npos)
        return words;
    for (std::size_t begin = open + 1; begin < close;) {
        std::size_t end = std::min(type.find(',', begin), close);
        std::string word = type.substr(begin, end - begin);
        words.push_back(word.substr(0, word.find("->")));
        begin = end + 1;
    }
    return words;
}

// "1 to 19" of "[1 - 19]", the form that a range leaves.
std::string range_in(const std::string& type) {
    std::size_t open = type.find('[');
    std::size_t between = type.find(" - ", open == std::string::npos ? type.size() : open);
    std::size_t close = type.find(']', between == std::string::npos ? type.size() : between);
    if (close == std::string::npos)
        return {};
    return type.substr(open + 1, between - open - 1) + " to " +
           type.substr(between + 3, close - between - 3);
}

std::string name_of(const CLI::Option& option) {
    return option.get_lnames().empty() ? option.get_name(true) : "--" + option.get_lnames().front();
}

std::vector<std::string> names_of(const std::set<CLI::Option*>& options) {
    std::vector<std::string> names;
    names.reserve(options.size());
    for (const CLI::Option* option : options)
        names.push_back(name_of(*option));
    std::sort(names.begin(), names.end()); // the set has them by address
    return names;
}

ValueKind kind_of(const std::string& type) {
    return type == "FILE"                                          ? ValueKind::file
           : type == "DIR" || type == "FOLDER" || type == "SERVER" ? ValueKind::folder
                                                                   : ValueKind::other;
}

OptionText option_text(const CLI::Option& option) {
    OptionText text;
    text.names.reserve(option.get_lnames().size() + option.get_snames().size());
    for (const std::string& name : option.get_lnames())
        text.names.push_back("--" + name);
    for (const std::string& name : option.get_snames())
        text.names.push_back("-" + name);
    text.help = option.get_description();
    text.default_value = option.get_default_str();
    text.environment = option.get_envname();
    text.required = option.get_required();
    text.repeatable =
        option.get_expected_max() > 1 || text.help.find("(repeatable)") != std::string::npos;
    text.needs = names_of(option.get_needs());
    text.excludes = names_of(option.get_excludes());
    if (option.get_items_expected_max() == 0)
        return text; // a flag
    const std::string type = option.get_type_name();
    const std::string base = type.substr(0, type.find(':'));
    text.choices = choices_in(type);
    text.range = text.choices.empty() ? range_in(type) : "";
    text.kind = kind_of(text.names.empty() ? option.get_name(true) : base);
    text.value = text.names.empty()                        ? option.get_name(true)
                 : base == "TEXT" && !text.choices.empty() ? joined(text.choices, "|")
                 : base.empty()                            ? "VALUE"
                                                           : base;
    return text;
}

// A command without exit codes of its own has those of the one above it.
CommandText text_below(const CLI::App& app, std::vector<std::string> words,
                       const std::string& exit_codes) {
    CommandText text;
    words.push_back(app.get_name());
    text.words = std::move(words);
    text.help = app.get_description();
    text.exit_codes = app.get_footer().empty() ? exit_codes : app.get_footer();
    for (const CLI::Option* option : app.get_options())
        (option->get_positional() ? text.arguments : text.options).push_back(option_text(*option));
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
        text.commands.push_back(text_below(*command, text.words, text.exit_codes));
    return text;
}

} // namespace

CommandText command_text(const CLI::App& app) {
    return text_below(app, {}, "");
}

std::vector<const CommandText*> all_of(const CommandText& program) {
    std::vector<const CommandText*> all = {&program};
    for (const CommandText& command : program.commands) {
        std::vector<const CommandText*> below = all_of(command);
        all.insert(all.end(), below.begin(), below.end());
    }
    return all;
}

std::string joined(const std::vector<std::string>& words, const std::string& between) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : between) + word;
    return text;
}

std::string typed_path(const CommandText& command) {
    std::string path;
    for (std::size_t i = 1; i < command.words.size(); ++i)
        path += " " + command.words[i];
    return path;
}

std::string short_help(const std::string& help) {
    constexpr std::size_t shortest = 12, longest = 72;
    std::string text = help;
    for (const char* end : {". ", ".\n", ": ", "; ", " ("})
        text = text.substr(0, text.find(end, shortest));
    std::replace(text.begin(), text.end(), '\n', ' ');
    if (text.ends_with('.'))
        text.pop_back();
    if (text.size() > longest)
        text = text.substr(0, text.rfind(' ', longest - 4)) + " ...";
    return text;
}

} // namespace qrtln::reference
