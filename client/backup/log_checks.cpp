#include "client/backup/log_checks.h"

#include "client/sets/catalogue.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln {

void LogChecks::check_sizes() {
    const std::vector<ManifestItem>& items = m_run.manifest.items;
    if (std::none_of(items.begin(), items.end(), [](const auto& item) { return item.log; }))
        return;
    std::optional<BaseSet> base = find_base(m_run.context.store, m_run.ini.sets);
    m_has_base = base.has_value();
    m_chain = load_log_chain(m_run.context.store, base ? base->set : "", m_run.ini.sets);
    ExtentSizes sizes;
    sizes.add(items);
    for (const ChainLink& link : m_chain)
        sizes.add(link.extent_sizes);
    for (ManifestItem& item : m_run.manifest.items) {
        if (!item.log || item.log->active || item.status != ItemStatus::stored)
            continue;
        if (std::uint64_t whole = sizes.of(*item.log); item.size != whole)
            m_run.set.fail(item,
                           fmt::format("it has {} bytes, but the full extents of this log have {}",
                                       item.size, whole));
    }
}

// Incomplete sets count with what they hold; the server keeps its logs after them, so these come
// again.
void LogChecks::check_chain() {
    ChainLink own{m_run.manifest.set, {}};
    for (const ManifestItem& item : m_run.manifest.items)
        if (item.log) // one that failed has its own message
            own.logs.push_back(*item.log);
    if (own.logs.empty())
        return;
    bool new_base = m_run.is_whole_full() && m_run.manifest.complete;
    std::vector<ChainLink> chain;
    if (m_has_base && !new_base)
        chain = std::move(m_chain);
    if (m_run.manifest.level == "incr")
        for (const ChainLink& link : chain)
            if (!link.logs.empty())
                m_run.manifest.previous = link.set;
    chain.push_back(std::move(own));
    m_run.manifest.log_gaps = find_log_gaps(chain);
}

} // namespace qrtln
