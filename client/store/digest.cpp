#include "client/store/digest.h"

#include "client/base/error.h"
#include "client/base/text.h"

#include <openssl/evp.h>

namespace qrtln {

namespace {

void check(int result) {
    if (result != 1)
        throw ClientError(ExitCode::failed, "cannot compute a SHA-256 digest");
}

} // namespace

Sha256::Sha256() : m_context(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    check(m_context ? EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr) : 0);
}

Sha256::~Sha256() = default;

void Sha256::update(Bytes bytes) {
    check(EVP_DigestUpdate(m_context.get(), bytes.data(), bytes.size()));
}

std::string Sha256::finish() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    check(EVP_DigestFinal_ex(m_context.get(), digest, &length));
    std::string_view bytes(reinterpret_cast<const char*>(digest), length);
    return to_hex(bytes);
}

std::string sha256_hex(std::string_view bytes) {
    Sha256 digest;
    digest.update(as_bytes(bytes));
    return digest.finish();
}

bool is_sha256_hex(std::string_view text) {
    return text.size() == 64 && from_hex(text).has_value();
}

} // namespace qrtln
