#include "client/store/wrapped_key.h"

#include "client/base/error.h"
#include "client/base/text.h"
#include "client/store/canonical_json.h"

#include <fmt/format.h>
#include <sodium.h>

namespace qrtln {

namespace {

constexpr int key_format = 1;
constexpr std::string_view of_passphrase = "passphrase";
constexpr std::string_view of_key_file = "key file";
constexpr std::size_t key_id_size = WrappedKey::id_digits / 2;
constexpr std::size_t key_salt_size = crypto_pwhash_SALTBYTES;
constexpr std::size_t key_nonce_size = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
constexpr std::size_t key_wrapped_size =
    SecretKey::size + crypto_aead_xchacha20poly1305_ietf_ABYTES;
// Argon2id: about a third of a second, in the memory that everything else has, too.
constexpr std::uint64_t operations = 4;
constexpr std::uint64_t memory = std::uint64_t{64} << 20;
// What a document may ask for that somebody changed.
constexpr std::uint64_t most_operations = 64;
constexpr std::uint64_t most_memory = std::uint64_t{1} << 30;

std::string random_bytes(std::size_t size) {
    std::string bytes(size, '\0');
    ::randombytes_buf(bytes.data(), bytes.size());
    return bytes;
}

const unsigned char* bytes_of(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string bytes_in(const nlohmann::json& document, const char* name, std::size_t size) {
    const std::optional<std::string> bytes = from_hex(document.at(name).get<std::string>());
    return bytes && bytes->size() == size ? *bytes : std::string();
}

// What opens the wrapping.
SecretKey key_of(const Secret& secret, const nlohmann::json& document) {
    SecretKey key;
    const std::string salt = bytes_in(document, "salt", key_salt_size);
    if (!secret.is_passphrase) {
        crypto_generichash(key.data(), SecretKey::size, bytes_of(secret.bytes), secret.bytes.size(),
                           bytes_of(salt), salt.size());
        return key;
    }
    if (::crypto_pwhash(key.data(), SecretKey::size, secret.bytes.data(), secret.bytes.size(),
                        bytes_of(salt), document.at("operations").get<std::uint64_t>(),
                        document.at("memory").get<std::uint64_t>(),
                        crypto_pwhash_ALG_ARGON2ID13) != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("there is no memory for a key of the store, which takes {}",
                                      human_bytes(document.at("memory").get<std::uint64_t>())));
    return key;
}

// Everything but the wrapped key itself is authenticated with it.
std::string additional(nlohmann::json document) {
    document.erase("wrapped");
    return to_canonical(std::move(document));
}

bool is_in_form(const nlohmann::json& document) {
    const std::string kind = document.at("kind").get<std::string>();
    const bool has_costs =
        kind != of_passphrase ||
        (document.at("operations").get<std::uint64_t>() >= 1 &&
         document.at("operations").get<std::uint64_t>() <= most_operations &&
         document.at("memory").get<std::uint64_t>() >= crypto_pwhash_MEMLIMIT_MIN &&
         document.at("memory").get<std::uint64_t>() <= most_memory);
    return document.at("format") == key_format && (kind == of_passphrase || kind == of_key_file) &&
           has_costs && !bytes_in(document, "id", key_id_size).empty() &&
           !bytes_in(document, "salt", key_salt_size).empty() &&
           !bytes_in(document, "nonce", key_nonce_size).empty() &&
           !bytes_in(document, "wrapped", key_wrapped_size).empty();
}

} // namespace

WrappedKey wrap_key(const SecretKey& store_key, const Secret& secret, const std::string& label,
                    std::int64_t now) {
    WrappedKey key;
    key.id = to_hex(random_bytes(key_id_size));
    key.kind = secret.is_passphrase ? of_passphrase : of_key_file;
    key.label = label;
    key.created = now;
    const std::string nonce = random_bytes(key_nonce_size);
    nlohmann::json document = {
        {"format", key_format},   {"id", key.id},
        {"kind", key.kind},       {"label", key.label},
        {"created", key.created}, {"salt", to_hex(random_bytes(key_salt_size))},
        {"nonce", to_hex(nonce)}};
    if (secret.is_passphrase)
        document.update({{"operations", operations}, {"memory", memory}});
    const SecretKey by = key_of(secret, document);
    const std::string text = additional(document);
    std::string wrapped(key_wrapped_size, '\0');
    crypto_aead_xchacha20poly1305_ietf_encrypt(
        reinterpret_cast<unsigned char*>(wrapped.data()), nullptr, store_key.data(),
        SecretKey::size, bytes_of(text), text.size(), nullptr, bytes_of(nonce), by.data());
    document["wrapped"] = to_hex(wrapped);
    key.document = to_canonical(document);
    return key;
}

std::optional<WrappedKey> read_wrapped_key(const std::string& document, std::string& problem) {
    const std::optional<nlohmann::json> read = from_canonical(document, problem);
    if (!read)
        return std::nullopt;
    try {
        if (is_in_form(*read))
            return WrappedKey{read->at("id").get<std::string>(),
                              read->at("kind").get<std::string>(),
                              read->at("label").get<std::string>(),
                              read->at("created").get<std::int64_t>(), document};
    } catch (const nlohmann::json::exception&) { // a field is missing, or of another type
    }
    problem = "is not in its form";
    return std::nullopt;
}

std::optional<SecretKey> unwrap_key(const WrappedKey& key, const Secret& secret) {
    if ((key.kind == of_passphrase) != secret.is_passphrase)
        return std::nullopt;
    std::string problem;
    nlohmann::json document = from_canonical(key.document, problem).value();
    const SecretKey by = key_of(secret, document);
    const std::string wrapped = bytes_in(document, "wrapped", key_wrapped_size);
    const std::string nonce = bytes_in(document, "nonce", key_nonce_size);
    const std::string text = additional(document);
    SecretKey store_key;
    if (crypto_aead_xchacha20poly1305_ietf_decrypt(
            store_key.data(), nullptr, nullptr, bytes_of(wrapped), wrapped.size(), bytes_of(text),
            text.size(), bytes_of(nonce), by.data()) != 0)
        return std::nullopt;
    return store_key;
}

} // namespace qrtln
