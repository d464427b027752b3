#include "client/commands/settings.h"

#include "client/base/error.h"
#include "client/base/output.h"
#include "client/base/text.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <set>

namespace qrtln {

namespace {

// They say which configuration counts, or ask for something else than a run.
const std::set<std::string>& never_set() {
    static const std::set<std::string> names = {"help", "version", "config", "profile",
                                                "show-config"};
    return names;
}

bool is_flag_option(const CLI::Option& option) {
    return option.get_items_expected_max() == 0;
}

// By its long name, without "--"; an argument without one cannot be set elsewhere.
std::map<std::string, const CLI::Option*> settable_options(const CLI::App& command) {
    std::map<std::string, const CLI::Option*> options;
    for (const CLI::Option* option : command.get_options())
        for (const std::string& name : option->get_lnames())
            if (!never_set().contains(name))
                options[name] = option;
    return options;
}

std::vector<const CLI::App*> subcommands_of(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

// Commands below commands have the options of both: "documents deleted" is one of "documents".
void collect_known(const CLI::App& command, std::map<std::string, bool>& options) {
    for (const auto& [name, option] : settable_options(command))
        options[name] = is_flag_option(*option);
    for (const CLI::App* below : subcommands_of(command))
        collect_known(*below, options);
}

std::string variable_of(const std::string& option) {
    std::string variable = "QRTLN_";
    for (char letter : option)
        variable += letter == '-'
                        ? '_'
                        : static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
    return variable;
}

std::string environment_value(const std::string& variable) {
    const char* value = std::getenv(variable.c_str());
    return value != nullptr ? value : "";
}

std::string flag_value(const std::string& variable, const std::string& value) {
    for (const char* yes : {"1", "true", "yes", "on"})
        if (value == yes)
            return "true";
    for (const char* no : {"0", "false", "no", "off"})
        if (value == no)
            return "false";
    throw ClientError(ExitCode::usage, fmt::format("{}={}: that is neither true nor false",
                                                   variable, for_terminal(value)));
}

} // namespace

void add_common_options(CLI::App& command, CommonOptions& options) {
    constexpr const char* group = "Settings and output";
    command
        .add_option("--config", options.configuration,
                    fmt::format("The configuration (default: {})", usual_configuration_file))
        ->type_name("FILE")
        ->group(group);
    command.add_option("--profile", options.profile, "The server's part of the configuration")
        ->type_name("NAME")
        ->group(group);
    command
        .add_flag("--show-config", options.show_config,
                  "Tell the value of each option and where it comes from, and do nothing")
        ->group(group);
    command
        .add_option("--progress", options.progress,
                    "How far a run is: a line on a terminal and a line a minute elsewhere, always "
                    "one that is rewritten, never, or a line a minute")
        ->check(CLI::IsMember({"auto", "always", "never", "lines"}))
        ->capture_default_str()
        ->group(group);
    command.add_flag("--quiet", options.quiet, "Tell warnings and errors alone")->group(group);
}

void Settings::load_configuration(const std::vector<std::string>& words) {
    for (std::size_t i = 1; i < words.size() && words[i] != "--"; ++i) {
        if (!words[i].starts_with("--"))
            continue;
        const std::size_t equals = words[i].find('=');
        const std::string name = words[i].substr(2, equals - 2);
        m_given[name] = equals != std::string::npos ? words[i].substr(equals + 1)
                        : i + 1 < words.size()      ? words[i + 1]
                                                    : "";
    }
    KnownOptions known;
    for (const CLI::App* command : subcommands_of(m_app))
        collect_known(*command, known[command->get_name()]);
    auto given_or_set = [this](const char* option) {
        auto given = m_given.find(option);
        return given != m_given.end() ? given->second : environment_value(variable_of(option));
    };
    const std::string file = given_or_set("config");
    m_configuration =
        Configuration(file.empty() ? usual_configuration_file : file, known, file.empty());
    m_configuration.use_profile(given_or_set("profile"));
}

std::optional<Setting> Settings::find(const CLI::Option& option, const std::string& name) const {
    const std::string variable = variable_of(name);
    if (const std::string value = environment_value(variable); !value.empty())
        return Setting{{is_flag_option(option) ? flag_value(variable, value) : value}, variable};
    for (const CLI::App* command = m_command; command != &m_app; command = command->get_parent())
        if (std::optional<Setting> set = m_configuration.find(command->get_name(), name))
            return set;
    return std::nullopt;
}

std::vector<std::string> Settings::complete(std::vector<std::string> words) {
    m_command = &m_app;
    std::size_t behind = 1; // the last word of the command
    for (; behind < words.size(); ++behind) {
        const std::vector<const CLI::App*> below = subcommands_of(*m_command);
        auto named = std::find_if(below.begin(), below.end(), [&](const CLI::App* command) {
            return command->get_name() == words[behind];
        });
        if (named == below.end())
            break;
        m_command = *named;
    }
    if (m_command == &m_app)
        return words;
    load_configuration(words);
    std::vector<std::string> added;
    for (const auto& [name, option] : settable_options(*m_command)) {
        const std::set<CLI::Option*>& others = option->get_excludes();
        const bool decided =
            m_given.contains(name) ||
            std::any_of(others.begin(), others.end(), [this](const CLI::Option* other) {
                const std::vector<std::string>& names = other->get_lnames();
                return !names.empty() && m_given.contains(names.front());
            });
        const std::optional<Setting> set = decided ? std::nullopt : find(*option, name);
        if (!set)
            continue;
        m_added[name] = *set;
        for (const std::string& value : set->values)
            if (!is_flag_option(*option))
                added.push_back(fmt::format("--{}={}", name, value));
            else if (value == "true")
                added.push_back("--" + name);
    }
    words.insert(words.begin() + static_cast<std::ptrdiff_t>(behind), added.begin(), added.end());
    return words;
}

std::string Settings::origins() const {
    std::string text;
    for (const auto& [name, set] : m_added)
        text +=
            fmt::format("{}--{} from {}", text.empty() ? "" : ", ", name, for_terminal(set.origin));
    return text;
}

void Settings::print(bool json) const {
    Table table({"OPTION", "VALUE", "ORIGIN"});
    nlohmann::json document = nlohmann::json::array();
    for (const auto& [name, option] : settable_options(*m_command)) {
        Setting set{option->results(), "command line"};
        if (auto added = m_added.find(name); added != m_added.end())
            set = added->second;
        else if (!m_given.contains(name))
            set = {{is_flag_option(*option) ? "false" : option->get_default_str()}, "default"};
        std::string value;
        for (const std::string& part : set.values)
            value += (value.empty() ? "" : ", ") + part;
        table.add(
            {"--" + name, value.empty() ? "-" : for_terminal(value), for_terminal(set.origin)});
        document.push_back(
            {{"option", name}, {"value", printable_utf8(value)}, {"origin", set.origin}});
    }
    if (json)
        print_json({{"command", "show-config"},
                    {"file", printable_utf8(m_configuration.file())},
                    {"options", document},
                    {"exit_code", 0}});
    else
        print_output(table.text());
}

} // namespace qrtln
