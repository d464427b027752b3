// Gaps in a row of transaction logs: which are missing, and how that is said.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace qrtln {

// What is known to be there of one log.
enum class LogCopy {
    partial, // taken while the log was written: what came after is missing
    whole,
};

// By position, see LogPositions. What is not in it is missing.
using LogCopies = std::map<std::int64_t, LogCopy>;

// Positions of logs that are missing: both are of the gap.
struct MissingPositions {
    std::int64_t first = 0;
    std::int64_t last = 0;
};

enum class LastLog { may_be_partial, must_be_whole };

// The gaps between two positions, both included, in their order. A gap ends before the next log of
// which anything is there. A partial log is a gap, alone or with what is missing behind it, unless
// it is the very last and may be one.
std::vector<MissingPositions> find_gaps(const LogCopies& there, std::int64_t first,
                                        std::int64_t last,
                                        LastLog last_log = LastLog::may_be_partial);

// "the transaction log 5 is missing", "the transaction logs 5 to 7 are missing".
std::string missing_logs_text(std::uint32_t first, std::uint32_t last);

} // namespace qrtln
