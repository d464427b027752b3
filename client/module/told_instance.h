// What the module tells of instances: each database that is transaction-logged, and each log, has
// an identity of 34 characters, "0000000A-00000020 0000030000004000".
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qrtln {

// The identity in a line that begins with `beginning`, between the last `before` and `end`, with
// which the line ends; empty for any other line, and for the identity of nothing. A path in front
// of it may hold brackets.
std::string identity_between(std::string_view line, std::string_view beginning,
                             std::string_view before, std::string_view end);

// The instance (DBIID) that a line of the trace tells for the database that was just prepared, 34
// characters; empty for any other line and for a database that is not transaction-logged.
std::string parse_prepared_dbiid(const std::string& line);

// What the server answered about a database, before the module hands it out.
struct AskedDatabase {
    enum class State { logged, not_logged, unopenable } state = State::logged;
    std::string dbiid; // of one that is transaction-logged
};

// The answer that a line of the trace tells, or nothing for any other line.
std::optional<AskedDatabase> parse_asked_database(const std::string& line);

} // namespace qrtln
