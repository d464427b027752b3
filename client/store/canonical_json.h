// JSON documents that hold their own checksum and have exactly one form.
#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace qrtln {

// The document's one form: keys sorted, indented by one blank, a line feed at the end, with the
// field "checksum" set to the SHA-256 of that form without the field. Strings must be UTF-8.
std::string to_canonical(nlohmann::json document);

// Reads what to_canonical wrote. Returns nothing with `problem` set for anything else: a single
// changed bit is found.
std::optional<nlohmann::json> from_canonical(const std::string& bytes, std::string& problem);

} // namespace qrtln
