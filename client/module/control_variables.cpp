#include "client/module/control_variables.h"

#include "client/base/error.h"
#include "client/base/limits.h"
#include "client/base/text.h"
#include "client/domino/local_time.h"

#include <array>
#include <fmt/format.h>
#include <string_view>

namespace qrtln {

namespace {

constexpr std::string_view value_prefix = "QRTLN:";

// Found anywhere in INFO, these mean something to the module.
constexpr std::array info_keywords = {"-R", "-o", "deld", "chgd", "DELD", "CHGD", "\""};

constexpr std::string_view pattern_characters = "?[\\";
// Every character but "*" is not this one: the module takes an escaped "*", too, for a pattern that
// goes on in the folders below.
constexpr std::string_view only_star = "[!\x01-)+-\xff]";

// The path as a pattern that its last component alone matches. Where a folder above has a "*" in
// its name, what has the same last component in folders below that one is matched, too.
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

} // namespace

std::string database_value(const std::string& path) {
    return std::string(value_prefix) + escape_last_component(path);
}

std::string folder_content_value(const std::string& folder) {
    return fmt::format("{}{}/*.*", value_prefix, folder);
}

bool is_pattern(const std::string& path) {
    return escape_last_component(path) != path || path.find('*') != std::string::npos;
}

std::size_t maximal_database_path() {
    return module_path_size - 1 - value_prefix.size();
}

std::string base_time_variable(std::time_t time) {
    std::optional<std::string> digits = local_digits_not_after(time);
    if (!digits)
        throw ClientError(
            ExitCode::failed,
            fmt::format("the start of the base backup, {} seconds since 1970, has no date", time));
    return "SNC_TIME=" + *digits;
}

std::string rollforward_value(const std::optional<std::int64_t>& to) {
    if (!to)
        return "YES";
    std::optional<std::string> digits = local_digits(*to);
    if (!digits)
        throw ClientError(ExitCode::usage, "--to: the time has no date of four-digit year");
    if (!is_shown_once(*to))
        throw ClientError(
            ExitCode::usage,
            fmt::format(
                "--to {}: the server is told local time, and the clock shows this one twice",
                utc_time(*to)),
            fmt::format("take {}, or run with TZ=UTC", times_shown_once_beside(*to)));
    return *digits;
}

std::string relocation_variable(const std::string& to, bool plain) {
    return fmt::format("INFO=-R \"{}\"{}", to, plain ? " -o \"plain\"" : "");
}

std::string misread_in_info(const std::string& path) {
    for (const char* keyword : info_keywords)
        if (path.find(keyword) != std::string::npos)
            return keyword;
    return {};
}

} // namespace qrtln
