#include "client/backup/held_files.h"

#include "client/sets/catalogue.h"

#include <climits>
#include <cstdint>
#include <utility>

namespace qrtln {

void HeldFiles::read_sets(Store& store, const std::string& base, const ServerScope& scope,
                          bool since_base) {
    m_since_base = since_base;
    for (const std::string& name : store.set_names()) {
        if (name < base)
            continue;
        CatalogueEntry entry = load_set(store, name, scope);
        if (!entry.manifest)
            continue;
        for (ManifestItem& item : entry.manifest->items) {
            if (item.status != ItemStatus::stored)
                continue;
            Held held{item.kind, item.size, item.has_metadata ? item.mtime_ns : INT64_MIN,
                      std::move(item.target)};
            (name == base ? m_base : m_newest)[std::move(item.path)] = std::move(held);
        }
    }
}

bool HeldFiles::has(const ManifestItem& now, const struct stat& status) const {
    const auto size = static_cast<std::uint64_t>(status.st_size);
    auto same = [&](const Held& held) {
        if (now.kind == ItemKind::directory || now.kind == ItemKind::link)
            return held.kind == now.kind && held.target == now.target;
        bool file = held.kind == ItemKind::file || held.kind == ItemKind::other;
        return file && held.size == size && held.mtime_ns == now.mtime_ns;
    };
    auto base = m_base.find(now.path);
    auto newest = m_newest.find(now.path);
    bool in_base = base != m_base.end() && same(base->second);
    bool in_newest = newest != m_newest.end() ? same(newest->second) : in_base;
    return in_newest && (in_base || !m_since_base || S_ISDIR(status.st_mode));
}

bool HeldFiles::is_of_module(const std::string& path) const {
    auto held = m_newest.find(path);
    if (held == m_newest.end()) {
        held = m_base.find(path);
        if (held == m_base.end())
            return false;
    }
    return held->second.kind != ItemKind::other && held->second.kind != ItemKind::link;
}

} // namespace qrtln
