#include "client/ledger/log_reach.h"

#include "client/recovery/logs.h"
#include "client/sets/log_gaps.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln {

const Reach& LogReach::of(const std::string& set) {
    auto known = m_known.find(set);
    if (known == m_known.end())
        known = m_known.emplace(set, look_at(set)).first;
    return known->second;
}

// As where the folder of the server's own logs is lost.
Reach LogReach::look_at(const std::string& set) const {
    ServerLogs lost;
    lost.missing = true;
    const RecoveryLogs logs = find_recovery_logs(m_stored, lost, {set, std::nullopt});
    if (!logs.any_stored)
        return {};
    if (logs.missing)
        return {logs.missing->reachable, missing_text(logs.missing->first, logs.missing->last)};
    return {logs.ends, {}};
}

// With the sets on both sides, and that a log is there and damaged.
std::string LogReach::missing_text(std::uint32_t first, std::uint32_t last) const {
    std::string text = missing_logs_text(first, last);
    auto gap = std::find_if(m_gaps.rbegin(), m_gaps.rend(), [&](const LogGap& one) {
        return one.reason.empty() && one.first == first;
    });
    if (gap != m_gaps.rend())
        text = describe(*gap);
    for (const PlacedLog& placed : place_newest_archive(m_stored))
        if (placed.log->damaged && placed.log->item.log->number == first)
            return fmt::format("{} (that of the set {} is damaged)", text, placed.log->set);
    return text;
}

} // namespace qrtln
