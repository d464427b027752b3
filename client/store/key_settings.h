// Which keys this run has for encrypted stores.
#pragma once

#include <string>
#include <vector>

namespace qrtln {

struct KeySettings {
    std::vector<std::string> passphrase_files;
    std::vector<std::string> passphrase_commands; // for the shell
    std::vector<std::string> key_files;
    // A store that is not encrypted is meant all the same, where there are keys.
    bool takes_plain_stores = false;

    bool empty() const {
        return passphrase_files.empty() && passphrase_commands.empty() && key_files.empty();
    }
};

// As the options say; set before the first store is opened.
KeySettings& key_settings();

// What opens a key of a store.
struct Secret {
    bool is_passphrase = false; // else the content of a key file
    std::string bytes;
};

// Reads a secret from each. Throws ClientError: no_permission for a file that others can read,
// too; failed for one that cannot be read or has no secret, and a command that fails.
std::vector<Secret> read_secrets(const KeySettings& keys);

} // namespace qrtln
