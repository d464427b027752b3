// The configuration file: values of options for every run, for one server (a profile), for one
// command. TOML:
//
//     store = "/backup/store"              # of every command that has --store
//     [backup]                             # of one command
//     compression = 5
//     [profile.mail01]                     # taken with --profile mail01
//     notes-ini = "/local/notesdata/notes.ini"
//     [profile.mail01.backup]
//     forget = "--keep-daily 14"
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qrtln {

inline constexpr const char* usual_configuration_file = "/etc/qrtln/config.toml";

// What a file or the environment says of one option.
struct Setting {
    std::vector<std::string> values; // of a flag: "true" or "false"
    std::string origin;              // for people: where it stands
};

// The options of each command, by its name, and which of them are flags.
using KnownOptions = std::map<std::string, std::map<std::string, bool>>;

class Configuration {
  public:
    // No file: nothing is set.
    Configuration();
    // Reads a file. Throws ClientError: usage for what is no TOML, and for keys and values that no
    // command takes; no_permission where others than root and this user could have written it;
    // failed where it cannot be read. A missing one is an error but where it `may_be_missing`.
    Configuration(const std::string& file, const KnownOptions& known, bool may_be_missing);
    ~Configuration();
    Configuration(Configuration&&) noexcept;
    Configuration& operator=(Configuration&&) noexcept;

    // Says whose settings are taken; empty: those of `default-profile`, if there is one. Throws
    // ClientError(usage) for one that there is not.
    void use_profile(const std::string& name);
    // That of the command in the profile, of the profile, of the command, of the file.
    std::optional<Setting> find(const std::string& command, const std::string& option) const;

    const std::string& file() const { return m_file; } // empty: there is none

  private:
    struct Content;
    std::string m_file;
    std::string m_profile;
    std::unique_ptr<Content> m_content;
};

} // namespace qrtln
