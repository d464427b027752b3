#include "client/store/canonical_json.h"

#include "client/base/text.h"
#include "client/store/digest.h"

#include <stdexcept>
#include <string_view>

namespace qrtln {

namespace {

std::string form(const nlohmann::json& document) {
    return document.dump(1) + "\n";
}

// Far more than any document of ours has.
constexpr int maximal_depth = 32;

// Whether lists and objects lie deeper in each other than that: copying and writing a document goes
// as deep as it does. For bytes that are no JSON either answer may come.
bool is_too_deep(std::string_view bytes) {
    int depth = 0;
    bool in_string = false;
    for (std::size_t i = 0; i < bytes.size() && depth <= maximal_depth; ++i) {
        char c = bytes[i];
        if (in_string && c == '\\')
            ++i;
        else if (c == '"')
            in_string = !in_string;
        else if (!in_string && (c == '{' || c == '['))
            ++depth;
        else if (!in_string && (c == '}' || c == ']'))
            --depth;
    }
    return depth > maximal_depth;
}

// The bytes without the line of the checksum, which stands between others.
std::optional<std::string> without_checksum(const std::string& bytes, const std::string& checksum) {
    const std::string line = "\n \"checksum\": \"" + checksum + "\",\n";
    std::size_t at = bytes.find(line);
    if (at == std::string::npos)
        return std::nullopt;
    return bytes.substr(0, at) + bytes.substr(at + line.size() - 1);
}

} // namespace

std::string to_canonical(nlohmann::json document) {
    document.erase("checksum");
    std::string checksum = sha256_hex(form(document));
    document["checksum"] = std::move(checksum);
    return form(document);
}

std::optional<nlohmann::json> from_canonical(const std::string& bytes, std::string& problem) {
    if (is_too_deep(bytes)) {
        problem = "is not a document of the store: its parts lie too deep in each other";
        return std::nullopt;
    }
    nlohmann::json document = nlohmann::json::parse(bytes, nullptr, false);
    if (document.is_discarded() || !document.is_object()) {
        problem = "is not a JSON object";
        return std::nullopt;
    }
    auto checksum = document.find("checksum");
    if (checksum == document.end() || !checksum->is_string()) {
        problem = "has no checksum";
        return std::nullopt;
    }
    // Writing it again settles the form: every byte is one that we would write.
    const std::string stored = checksum->get<std::string>();
    document.erase(checksum);
    const std::string plain = form(document);
    if (without_checksum(bytes, stored) != plain || sha256_hex(plain) != stored) {
        problem = "does not match its checksum";
        return std::nullopt;
    }
    return document;
}

void put_bytes(nlohmann::json& object, const std::string& name, const std::string& bytes) {
    object[name] = printable_utf8(bytes);
    if (!is_utf8(bytes))
        object[name + "_hex"] = to_hex(bytes);
}

std::string get_bytes(const nlohmann::json& object, const std::string& name) {
    std::string text = object.at(name).get<std::string>();
    auto hex = object.find(name + "_hex");
    if (hex == object.end())
        return text;
    std::optional<std::string> bytes = from_hex(hex->get<std::string>());
    if (!bytes || printable_utf8(*bytes) != text)
        throw std::runtime_error("a path in two forms that differ");
    return *bytes;
}

nlohmann::json printable_list(const std::vector<std::string>& texts) {
    nlohmann::json list = nlohmann::json::array();
    for (const std::string& text : texts)
        list.push_back(printable_utf8(text));
    return list;
}

} // namespace qrtln
