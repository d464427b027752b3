// Which keys this run has for encrypted stores.
#pragma once

#include <string>
#include <vector>

namespace qrtln {

// What opens a key of a store.
struct Secret {
    bool is_passphrase = false; // else the content of a key file
    std::string bytes;
};

struct KeySettings {
    std::vector<std::string> passphrase_files;
    std::vector<std::string> passphrase_commands; // for the shell
    std::vector<std::string> key_files;
    // A store that is not encrypted is meant all the same, where there are keys.
    bool takes_plain_stores = false;

    bool empty() const {
        return passphrase_files.empty() && passphrase_commands.empty() && key_files.empty();
    }
    // As read_secrets() gives them, and then the same again: a command may ask somebody.
    const std::vector<Secret>& secrets();

  private:
    std::vector<Secret> m_secrets;
};

// As the options say; set before the first store is opened.
KeySettings& key_settings();

// Reads a secret from each. Throws ClientError: no_permission for a file that others can read,
// too; failed for one that cannot be read or has no secret, and a command that fails.
std::vector<Secret> read_secrets(const KeySettings& keys);

} // namespace qrtln
