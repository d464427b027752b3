#include "client/recovery/stored_logs.h"

#include "client/sets/catalogue.h"
#include "client/sets/log_positions.h"

namespace qrtln {

StoredLogs load_stored_logs(Store& store, const ServerScope& scope,
                            const std::set<std::pair<std::string, std::string>>& damaged) {
    StoredLogs stored;
    std::vector<StoredLog> controls;
    for (const std::string& set : store.set_names()) {
        CatalogueEntry entry = load_set(store, set, scope);
        if (!entry.manifest)
            continue;
        for (ManifestItem& item : entry.manifest->items) {
            if (item.status != ItemStatus::stored)
                continue;
            bool is_damaged = damaged.contains({item.path, item.object});
            if (item.log)
                stored.logs.push_back({set, std::move(item), is_damaged, entry.manifest->started});
            else if (item.kind == ItemKind::log_control && !is_damaged)
                controls.push_back({set, std::move(item), false, entry.manifest->started});
        }
    }
    // It describes the log of its own set.
    for (const StoredLog& control : controls)
        for (const StoredLog& log : stored.logs)
            if (log.set == control.set && same_archive(*log.item.log, *stored.logs.back().item.log))
                stored.control = control;
    return stored;
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
