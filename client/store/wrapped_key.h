// A key of an encrypted store: the key that its files are sealed with, which a passphrase or the
// content of a key file opens. docs/store-format.md describes the document.
#pragma once

#include "client/store/key_settings.h"
#include "client/store/sealing.h"

#include <cstdint>
#include <optional>
#include <string>

namespace qrtln {

struct WrappedKey {
    static constexpr std::size_t id_digits = 16;
    std::string id;            // hexadecimal digits, made by chance
    std::string kind;          // "passphrase" or "key file"
    std::string label;         // what somebody calls it; may be empty
    std::int64_t created = 0;  // seconds since 1970
    std::string document = {}; // its bytes in the store
};

// Wraps the key of a store, so that the secret opens it.
WrappedKey wrap_key(const SecretKey& store_key, const Secret& secret, const std::string& label,
                    std::int64_t now);

// Reads what wrap_key() wrote, as far as nobody needs a secret for it. Returns nothing with
// `problem` set for anything else.
std::optional<WrappedKey> read_wrapped_key(const std::string& document, std::string& problem);

// The key of the store; nothing where this secret does not open it.
std::optional<SecretKey> unwrap_key(const WrappedKey& key, const Secret& secret);

} // namespace qrtln
