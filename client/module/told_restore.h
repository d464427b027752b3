// What the module tells of databases that a restore activates or a recovery rolls forward.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace qrtln {

// Whether a line of the protocol says that the server does not take a database offline.
bool says_not_taken_offline(std::string_view line);
// Whether a line of the trace says that it did.
bool says_taken_offline(const std::string& line);

// What became of one database in a roll-forward.
struct RolledForward {
    enum class Verdict { recovered, not_recovered, perhaps } verdict = Verdict::not_recovered;
    std::string path; // where the database was to be, one of those that are known
    std::string reason;
};

// What a line of the protocol tells of one of the databases that `is_known` knows, or nothing for
// any other line: "ROLLFORWARD: recovered [PATH]", "ROLLFORWARD: NOT recovered [PATH]: REASON",
// "ROLLFORWARD: perhaps recovered [PATH]: REASON". As a path may hold brackets, even those of
// another one, the longest that is known counts.
std::optional<RolledForward>
parse_rolled_forward(std::string_view line,
                     const std::function<bool(const std::string& path)>& is_known);

// The path of the transaction log that a line says is missing; empty for any other line.
std::string parse_missing_log(std::string_view line);

// What a reason of RolledForward means, where that decides how things go on.
enum class NotRolledForward {
    other,
    not_taken_offline, // the server keeps it: the trace has why
    not_online,        // in place, but the server does not open it: likewise
    failed_elsewhere,  // another database ended the roll-forward
    unknown_to_log,    // no log has anything of it
    no_new_dbiid,      // in place, with the instance that it had
};
NotRolledForward meaning_of(std::string_view reason);

} // namespace qrtln
