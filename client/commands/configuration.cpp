#include "client/commands/configuration.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/nearest_word.h"
#include "client/base/text.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <toml++/toml.h>
#include <unistd.h>

namespace qrtln {

struct Configuration::Content {
    toml::table table;
};

namespace {

constexpr const char* profiles_key = "profile";
constexpr const char* default_profile_key = "default-profile";
constexpr std::size_t largest_configuration = std::size_t{1} << 20;

[[noreturn]] void refuse_setting(const std::string& file, const toml::node& where,
                                 const std::string& problem, const std::string& hint) {
    throw ClientError(
        ExitCode::usage,
        fmt::format("{}:{}: {}", for_terminal(file), where.source().begin.line, problem), hint);
}

// Whoever can write the file decides which code is loaded into the process, and where mail goes.
void require_own_file(const std::string& file, const struct stat& status) {
    const bool foreign = status.st_uid != 0 && status.st_uid != ::geteuid();
    if (foreign || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        throw ClientError(
            ExitCode::no_permission,
            fmt::format("the configuration {} {}: it was not read", for_terminal(file),
                        foreign ? "belongs to somebody else" : "can be changed by others"),
            foreign ? "`chown root` it" : "`chmod go-w` it");
}

std::string read_configuration(const std::string& file, bool may_be_missing, bool& there) {
    FileDescriptor input(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!input && errno == ENOENT && may_be_missing)
        return {};
    struct stat status {};
    if (!input || ::fstat(input.get(), &status) != 0)
        throw ClientError(errno == EACCES ? ExitCode::no_permission : ExitCode::failed,
                          fmt::format("cannot read the configuration {}: {}", for_terminal(file),
                                      system_error_text(errno)),
                          "`--config /dev/null` does without one");
    there = true;
    std::string content(largest_configuration + 1, '\0');
    const ssize_t got = read_up_to(input.get(), std::as_writable_bytes(std::span<char>(content)));
    if (got < 0 || static_cast<std::size_t>(got) > largest_configuration)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot read the configuration {}: {}", for_terminal(file),
                                      got < 0 ? system_error_text(static_cast<int>(-got))
                                              : "it is larger than 1 MiB"));
    content.resize(static_cast<std::size_t>(got));
    if (!content.empty())
        require_own_file(file, status);
    return content;
}

// A value in the form of the command line; nothing for a table, a time and the like.
std::optional<std::string> text_of_value(const toml::node& value) {
    if (const auto* text = value.as_string())
        return text->get();
    if (const auto* number = value.as_integer())
        return std::to_string(number->get());
    if (const auto* number = value.as_floating_point())
        return fmt::format("{}", number->get());
    return std::nullopt;
}

std::optional<std::vector<std::string>> texts_of_value(const toml::node& value, bool flag) {
    if (flag) {
        const auto* yes = value.as_boolean();
        return yes != nullptr
                   ? std::optional<std::vector<std::string>>({yes->get() ? "true" : "false"})
                   : std::nullopt;
    }
    std::vector<std::string> texts;
    if (const auto* list = value.as_array()) {
        for (const toml::node& part : *list) {
            std::optional<std::string> text = text_of_value(part);
            if (!text)
                return std::nullopt;
            texts.push_back(std::move(*text));
        }
        return texts;
    }
    std::optional<std::string> text = text_of_value(value);
    if (!text)
        return std::nullopt;
    texts.push_back(std::move(*text));
    return texts;
}

// Holds a whole file against what the commands take.
class ConfigurationCheck {
  public:
    ConfigurationCheck(const std::string& file, const KnownOptions& known)
        : m_file(file), m_known(known) {
        for (const auto& [command, options] : known)
            m_all.insert(options.begin(), options.end());
    }

    void check_file(const toml::table& table) const {
        for (const auto& [key, value] : table) {
            if (key == profiles_key)
                check_profiles(value);
            else if (key == default_profile_key)
                require(value.is_string(), value, "default-profile is no name");
            else
                check_member(std::string(key.str()), value);
        }
    }

  private:
    void check_profiles(const toml::node& profiles) const {
        require(profiles.is_table(), profiles, "profile is no table: write [profile.NAME]");
        for (const auto& [name, profile] : *profiles.as_table()) {
            require(profile.is_table(), profile, "a profile is a table: write [profile.NAME]");
            for (const auto& [key, value] : *profile.as_table())
                check_member(std::string(key.str()), value);
        }
    }

    // Of the file or of a profile: an option of any command, or a command's options.
    void check_member(const std::string& key, const toml::node& value) const {
        const auto command = m_known.find(key);
        if (command == m_known.end() || !value.is_table()) {
            check_option(key, value, m_all, "");
            return;
        }
        for (const auto& [option, of_command] : *value.as_table())
            check_option(std::string(option.str()), of_command, command->second, key);
    }

    void check_option(const std::string& option, const toml::node& value,
                      const std::map<std::string, bool>& options,
                      const std::string& command) const {
        const auto known = options.find(option);
        if (known == options.end()) {
            std::vector<std::string> words;
            words.reserve(options.size() + m_known.size());
            for (const auto& [word, flag] : options)
                words.push_back(word);
            if (command.empty())
                for (const auto& [word, of_command] : m_known)
                    words.push_back(word);
            const std::string near = nearest_word(option, words);
            refuse_setting(m_file, value,
                           fmt::format("there is no option '{}'{}", for_terminal(option),
                                       command.empty() ? "" : " of " + command),
                           near.empty() ? "keys are the options of the commands, without \"--\""
                                        : "did you mean '" + near + "'?");
        }
        require(texts_of_value(value, known->second).has_value(), value,
                known->second ? option + " is a flag: write true or false"
                              : option + " takes a text, a number or a list of them");
    }

    void require(bool holds, const toml::node& where, const std::string& problem) const {
        if (!holds)
            refuse_setting(m_file, where, problem, "");
    }

    const std::string& m_file;
    const KnownOptions& m_known;
    std::map<std::string, bool> m_all; // options of any command
};

} // namespace

Configuration::Configuration() = default;
Configuration::~Configuration() = default;
Configuration::Configuration(Configuration&&) noexcept = default;
Configuration& Configuration::operator=(Configuration&&) noexcept = default;

Configuration::Configuration(const std::string& file, const KnownOptions& known,
                             bool may_be_missing) {
    bool there = false;
    const std::string text = read_configuration(file, may_be_missing, there);
    if (!there)
        return;
    m_file = file;
    m_content = std::make_unique<Content>();
    try {
        m_content->table = toml::parse(text, file);
    } catch (const toml::parse_error& error) {
        throw ClientError(ExitCode::usage,
                          fmt::format("{}:{}: {}", for_terminal(file), error.source().begin.line,
                                      for_terminal(std::string(error.description()))),
                          "the configuration is TOML: NAME = \"VALUE\"");
    }
    ConfigurationCheck(m_file, known).check_file(m_content->table);
}

void Configuration::use_profile(const std::string& name) {
    m_profile = name;
    if (m_content != nullptr && name.empty())
        m_profile = m_content->table[default_profile_key].value_or(std::string());
    if (m_profile.empty())
        return;
    std::vector<std::string> names;
    if (m_content != nullptr)
        if (const toml::table* profiles = m_content->table[profiles_key].as_table())
            for (const auto& [key, profile] : *profiles)
                names.emplace_back(key.str());
    if (std::find(names.begin(), names.end(), m_profile) != names.end())
        return;
    std::string hint =
        names.empty() ? "write [profile." + for_terminal(m_profile) + "] into it" : "there are:";
    for (const std::string& known : names)
        hint += " " + for_terminal(known);
    throw ClientError(ExitCode::usage,
                      fmt::format("there is no profile '{}' in {}", for_terminal(m_profile),
                                  m_file.empty() ? usual_configuration_file : for_terminal(m_file)),
                      hint);
}

std::optional<Setting> Configuration::find(const std::string& command,
                                           const std::string& option) const {
    if (m_content == nullptr)
        return std::nullopt;
    const toml::table& all = m_content->table;
    const auto profile = all[profiles_key][m_profile];
    const std::string of_profile = m_profile.empty() ? "" : "profile." + m_profile;
    const std::pair<toml::node_view<const toml::node>, std::string> places[] = {
        {profile[command][option], of_profile + "." + command},
        {profile[option], of_profile},
        {all[command][option], command},
        {toml::node_view<const toml::node>(all.get(option)), ""},
    };
    for (const auto& [place, table] : places) {
        if (!place || place.is_table())
            continue;
        const toml::node& value = *place.node();
        std::optional<std::vector<std::string>> texts = texts_of_value(value, value.is_boolean());
        if (texts)
            return Setting{std::move(*texts),
                           fmt::format("{}:{}{}", m_file, value.source().begin.line,
                                       table.empty() ? "" : " [" + table + "]")};
    }
    return std::nullopt;
}

} // namespace qrtln
