// What options get that the command line does not name: from the environment, QRTLN_NAME, or from
// the configuration. A flag counts before the environment, that before a profile, that before the
// rest of the file, that before what a command does by itself.
#pragma once

#include "client/commands/command.h"
#include "client/commands/configuration.h"

#include <CLI/CLI.hpp>

#include <map>
#include <string>
#include <vector>

namespace qrtln {

// Adds those to a command, bound to the values.
void add_common_options(CLI::App& command, CommonOptions& options);

class Settings {
  public:
    // `app` has all commands, and outlives it.
    explicit Settings(const CLI::App& app) : m_app(app) {}

    // The command line with everything that other places say of the command that it names. Throws
    // ClientError for a configuration that cannot be used.
    std::vector<std::string> complete(std::vector<std::string> words);

    // Where the values come from that were added, for a message; empty when none was.
    std::string origins() const;
    // Prints every option of the command, its value and its origin. REQUIRES: complete() was
    // called, and its result parsed.
    void print(bool json) const;

  private:
    std::optional<Setting> find(const CLI::Option& option, const std::string& name) const;
    void load_configuration(const std::vector<std::string>& words);

    const CLI::App& m_app;
    const CLI::App* m_command = nullptr;
    Configuration m_configuration;
    std::map<std::string, std::string> m_given; // options on the command line, with their values
    std::map<std::string, Setting> m_added;     // from elsewhere
};

} // namespace qrtln
