// SHA-256, incrementally.
#pragma once

#include "client/base/file_io.h"

#include <memory>
#include <string>

struct evp_md_ctx_st;

namespace qrtln {

class Sha256 {
  public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;
    void update(Bytes bytes);
    // The digest as 64 lower-case hexadecimal digits; the object is done.
    std::string finish();

  private:
    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> m_context;
};

std::string sha256_hex(std::string_view bytes);

// Whether the text is a digest as `finish` writes it.
bool is_sha256_hex(std::string_view text);

} // namespace qrtln
