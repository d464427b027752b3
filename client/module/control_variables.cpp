#include "client/module/control_variables.h"

#include <array>
#include <string_view>

namespace qrtln {

namespace {

// Found anywhere in INFO, these mean something to the module.
constexpr std::array info_keywords = {"-R", "-o", "deld", "chgd", "DELD", "CHGD", "\""};

constexpr std::string_view pattern_characters = "?[\\";
// Every character but "*" is not this one: the module takes an escaped "*", too, for a pattern that
// goes on in the folders below.
constexpr std::string_view only_star = "[!\x01-)+-\xff]";

} // namespace

std::string misread_in_info(const std::string& path) {
    for (const char* keyword : info_keywords)
        if (path.find(keyword) != std::string::npos)
            return keyword;
    return {};
}

std::string relocation_info(const std::string& to, bool plain) {
    return "-R \"" + to + "\"" + (plain ? " -o \"plain\"" : "");
}

std::string escape_last_component(const std::string& path) {
    std::size_t start = path.rfind('/') + 1;
    std::string escaped = path.substr(0, start);
    for (char character : path.substr(start)) {
        if (character == '*') {
            escaped += only_star;
            continue;
        }
        if (pattern_characters.find(character) != std::string_view::npos)
            escaped += '\\';
        escaped += character;
    }
    return escaped;
}

} // namespace qrtln
