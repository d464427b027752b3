#include "client/module/told_server.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace qrtln {

std::optional<ReportedDirectory> parse_reported_directory(const std::string& line) {
    constexpr std::string_view data = "getNotesDirectories(): got Directory=[";
    constexpr std::string_view program = "getNotesDirectories(): got NotesProgram=[";
    for (auto [before, kind] : {std::pair{data, ReportedDirectory::Kind::data},
                                std::pair{program, ReportedDirectory::Kind::program}})
        if (line.starts_with(before) && line.ends_with(']'))
            return ReportedDirectory{kind,
                                     line.substr(before.size(), line.size() - before.size() - 1)};
    return std::nullopt;
}

bool says_library_starts(std::string_view line) {
    return line.starts_with("Call NotesInitExtended(");
}

bool says_library_missing(const std::string& reason) {
    return reason.find("libnotes") != std::string::npos ||
           reason.find("Notes C API") != std::string::npos;
}

std::string parse_missing_function(const std::string& reason) {
    constexpr std::string_view beginning = "the first is ";
    std::size_t at = reason.find(beginning);
    if (at == std::string::npos)
        return {};
    at += beginning.size();
    return reason.substr(at, reason.find_first_of(" ,", at) - at);
}

std::optional<ServerStatus> parse_server_status(const std::string& line) {
    constexpr std::string_view beginning = "Got Notes error: ";
    std::size_t number = line.rfind(" (");
    if (!line.starts_with(beginning) || !line.ends_with(')') || number < beginning.size())
        return std::nullopt;
    ServerStatus status;
    status.text = line.substr(beginning.size(), number - beginning.size());
    const char* end = line.data() + line.size() - 1;
    auto [last, error] = std::from_chars(line.data() + number + 2, end, status.number);
    return error == std::errc() && last == end ? std::optional(status) : std::nullopt;
}

std::string advice_on(const ServerStatus& status) {
    constexpr unsigned access_denied = 272;
    constexpr unsigned no_database = 513;
    switch (status.number) {
    case status_in_use:
        return "shut down the task that uses it, or the server";
    case access_denied:
        return "run as the user that owns the server's data directory, and look at the mode of the "
               "file";
    case no_database:
        return "what is in its place is no database any more: move it away";
    default:
        return "look at the file, its disk and the server's console";
    }
}

std::optional<std::string> parse_error_line(const std::string& line) {
    constexpr std::string_view beginning = "DB_ErrHandler: ";
    return line.starts_with(beginning) ? std::optional(line.substr(beginning.size()))
                                       : std::nullopt;
}

} // namespace qrtln
