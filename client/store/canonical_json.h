// JSON documents that hold their own checksum and have exactly one form.
#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace qrtln {

// The document's one form: keys sorted, indented by one blank, a line feed at the end, with the
// field "checksum" set to the SHA-256 of that form without the field. Strings must be UTF-8.
std::string to_canonical(nlohmann::json document);

// Reads what to_canonical wrote. Returns nothing with `problem` set for anything else: a single
// changed bit is found.
std::optional<nlohmann::json> from_canonical(const std::string& bytes, std::string& problem);

// Puts bytes into the field `name` as text; where that is not exact, their hexadecimal form goes
// beside it, in `name` + "_hex".
void put_bytes(nlohmann::json& object, const std::string& name, const std::string& bytes);

// Reads them back. Throws std::exception when the field is missing or its two forms differ.
std::string get_bytes(const nlohmann::json& object, const std::string& name);

// Texts for people as an array: what is not UTF-8 is shown, not kept.
nlohmann::json printable_list(const std::vector<std::string>& texts);

} // namespace qrtln
