// What the module tells of the server's library: where it works, whether it could be loaded, and
// with which of its failures it answered.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qrtln {

// A directory that the server's library says it works with.
struct ReportedDirectory {
    enum class Kind { data, program } kind;
    std::string path;
};

// The directory that a line of the trace tells, or nothing for any other line.
std::optional<ReportedDirectory> parse_reported_directory(const std::string& line);

// Whether a line of the protocol says that the server's library is started next.
bool says_library_starts(std::string_view line);

// Whether the reason of a failed start says that the server's library could not be used at all.
bool says_library_missing(const std::string& reason);

// The first function that the server's library lacks, as the reason of a failed start names it;
// empty for any other reason.
std::string parse_missing_function(const std::string& reason);

// A failure of the server's.
struct ServerStatus {
    unsigned number = 0; // of its library
    std::string text;
};
inline constexpr unsigned status_in_use = 5098; // the database is

// The failure that a line of the trace tells, or nothing for any other line.
std::optional<ServerStatus> parse_server_status(const std::string& line);

// What to do when the server does not take a database offline for this reason, for a person.
std::string advice_on(const ServerStatus& status);

// The module's error that a line of the protocol tells, or nothing for any other line.
std::optional<std::string> parse_error_line(const std::string& line);

} // namespace qrtln
