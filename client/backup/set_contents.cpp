#include "client/backup/set_contents.h"

#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>

namespace qrtln {

SetContents::SetContents(Store& store, Manifest& manifest, const PathRules& rules,
                         const std::string& data_directory, bool verbose)
    : m_store(store), m_manifest(manifest), m_rules(rules), m_data_directory(data_directory),
      m_verbose(verbose) {}

void SetContents::add(ManifestItem item) {
    if (item.status == ItemStatus::failed && item.kind == ItemKind::database &&
        is_below(item.path, m_data_directory) &&
        m_rules.acknowledges(path_below(item.path, m_data_directory)))
        item.status = ItemStatus::left_out;
    report(item);
    m_manifest.items.push_back(std::move(item));
}

void SetContents::add_silently(ManifestItem item) {
    m_manifest.items.push_back(std::move(item));
}

void SetContents::add_failed(const std::string& path, ItemKind kind, const std::string& reason) {
    ManifestItem item;
    item.path = path;
    item.kind = kind;
    item.reason = reason;
    m_met.insert(path);
    add(std::move(item));
}

void SetContents::add_read(ManifestItem item) {
    if (item.reason.empty()) {
        item.status = ItemStatus::stored;
        item.copied = std::time(nullptr) + 1;
    }
    add(std::move(item));
}

const ManifestItem* SetContents::find(const std::string& path) const {
    const auto& items = m_manifest.items;
    auto found = std::find_if(items.begin(), items.end(),
                              [&](const ManifestItem& item) { return item.path == path; });
    return found != items.end() ? &*found : nullptr;
}

void SetContents::drop(const std::string& path) {
    auto& items = m_manifest.items;
    auto found = std::find_if(items.begin(), items.end(),
                              [&](const ManifestItem& item) { return item.path == path; });
    if (found == items.end())
        return;
    drop_content(*found);
    items.erase(found);
}

void SetContents::fail(ManifestItem& item, const std::string& reason) {
    item.status = ItemStatus::failed;
    item.reason = reason;
    drop_content(item);
    report(item);
}

void SetContents::note_object(const StoredObject& object) {
    if (object.number)
        m_contents[object.hash] = *object.number;
    else if (object.added)
        m_objects[object.hash] = object.stored_size;
}

void SetContents::place_contents(const FinishedContents& contents) {
    for (ManifestItem& item : m_manifest.items)
        if (auto found = m_contents.find(item.object);
            found != m_contents.end() && !is_in_blocks(item)) {
            item.map = contents.contents.at(found->second).place;
            item.stored_size = contents.contents.at(found->second).stored_size;
        }
    m_content_bytes = contents.stored_size;
}

std::uint64_t SetContents::new_bytes() const {
    std::uint64_t bytes = m_content_bytes;
    for (const auto& [object, size] : m_objects)
        bytes += size;
    return bytes;
}

// Takes back what was stored of an item.
void SetContents::drop_content(ManifestItem& item) {
    std::string object = std::exchange(item.object, {});
    const auto& items = m_manifest.items;
    if (!object.empty() && std::none_of(items.begin(), items.end(),
                                        [&](const auto& other) { return other.object == object; }))
        if (m_objects.erase(object) > 0)
            m_store.discard_object(object);
    item.size = item.stored_size = 0;
}

void SetContents::report(const ManifestItem& item) const {
    if (item.status != ItemStatus::stored && interrupt_signal() == 0)
        print_message(fmt::format("{}: {}: {}",
                                  item.status == ItemStatus::failed ? "failed"
                                                                    : "left out, as --exclude says",
                                  for_terminal(item.path), for_terminal(item.reason)));
    if (m_verbose)
        for (const std::string& warning : item.warnings)
            print_message(
                fmt::format("warning: {}: {}", for_terminal(item.path), for_terminal(warning)));
}

} // namespace qrtln
