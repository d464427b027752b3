#include "client/recovery/stored_logs.h"

#include "client/sets/catalogue.h"
#include "client/sets/log_positions.h"

namespace qrtln {

void StoredLogGathering::add(const Manifest& manifest,
                             const std::function<bool(const ManifestItem&)>& is_damaged) {
    for (const ManifestItem& item : manifest.items) {
        if (item.status != ItemStatus::stored || (!item.log && item.kind != ItemKind::log_control))
            continue;
        const bool damaged = is_damaged(item);
        if (item.log)
            m_stored.logs.push_back({manifest.set, item, damaged, manifest.started});
        else if (!damaged)
            m_controls.push_back({manifest.set, item, false, manifest.started});
    }
}

StoredLogs StoredLogGathering::finish() && {
    // It describes the log of its own set.
    for (const StoredLog& control : m_controls)
        for (const StoredLog& log : m_stored.logs)
            if (log.set == control.set &&
                same_archive(*log.item.log, *m_stored.logs.back().item.log))
                m_stored.control = control;
    return std::move(m_stored);
}

StoredLogs load_stored_logs(Store& store, const ServerScope& scope,
                            const std::set<std::pair<std::string, std::string>>& damaged) {
    StoredLogGathering gathering;
    for (const std::string& set : store.set_names())
        if (CatalogueEntry entry = load_set(store, set, scope); entry.manifest)
            gathering.add(*entry.manifest, [&](const ManifestItem& item) {
                return damaged.contains({item.path, item.object});
            });
    return std::move(gathering).finish();
}

bool has_newest_archive(const StoredLogs& stored, const std::string& set) {
    const StoredLog* nearest = nullptr;
    for (const StoredLog& log : stored.logs) {
        if (log.set > set && nearest != nullptr)
            break;
        nearest = &log;
    }
    return nearest == nullptr || same_archive(*nearest->item.log, *stored.logs.back().item.log);
}

std::vector<PlacedLog> place_newest_archive(const StoredLogs& stored) {
    std::vector<PlacedLog> placed;
    LogPositions position;
    for (const StoredLog& log : stored.logs)
        if (same_archive(*log.item.log, *stored.logs.back().item.log))
            placed.push_back({position.of(log.item.log->number), &log});
    return placed;
}

} // namespace qrtln
