#include "client/sets/log_gaps.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln {

std::vector<MissingPositions> find_gaps(const LogCopies& there, std::int64_t first,
                                        std::int64_t last, LastLog last_log) {
    std::vector<MissingPositions> gaps;
    for (std::int64_t position = first; position <= last;) {
        auto copy = there.find(position);
        bool partial_end = position == last && last_log == LastLog::may_be_partial;
        if (copy != there.end() && (copy->second == LogCopy::whole || partial_end)) {
            ++position;
            continue;
        }
        auto next = there.upper_bound(position);
        std::int64_t end = next == there.end() ? last : std::min(last, next->first - 1);
        gaps.push_back({position, end});
        position = end + 1;
    }
    return gaps;
}

std::string missing_logs_text(std::uint32_t first, std::uint32_t last) {
    return first == last ? fmt::format("the transaction log {} is missing", first)
                         : fmt::format("the transaction logs {} to {} are missing", first, last);
}

} // namespace qrtln
