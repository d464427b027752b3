#include "client/sets/convert_sets.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/text.h"
#include "client/sets/catalogue.h"
#include "client/sets/item_content.h"
#include "client/sets/store_use.h"
#include "client/store/digest.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <utility>

namespace qrtln {

namespace {

class SetConverter {
  public:
    SetConverter(Store& store, ConvertedSets& result) : m_store(store), m_result(result) {}
    void convert(const std::string& set);
    std::uint64_t stored_size() const { return m_stored_size; }

  private:
    struct Rewritten {
        ManifestItem* item;
        std::string object; // that it had
        StoredObject stored;
    };
    void take(const std::string& server, ManifestItem& item);
    void write(const std::string& server, ManifestItem& item);
    void place();
    void require_same(const Rewritten& one) const;

    Store& m_store;
    ConvertedSets& m_result;
    std::map<std::string, BlockContent> m_by_object; // contents that are in blocks by now
    // The newest version of each file by now, by its server and path.
    std::map<std::pair<std::string, std::string>, BlockContent> m_latest;
    std::vector<Rewritten> m_rewritten; // of the set at hand
    std::uint64_t m_stored_size = 0;
};

void SetConverter::convert(const std::string& set) {
    CatalogueEntry entry = load_set(m_store, set);
    if (!entry.manifest) {
        m_result.left_over.push_back(fmt::format("the set {}: its manifest {}; so no object goes",
                                                 set, for_terminal(entry.problem)));
        m_result.damaged_manifest = true;
        return;
    }
    Manifest& manifest = *entry.manifest;
    m_rewritten.clear();
    bool changed = false;
    for (ManifestItem& item : manifest.items) {
        throw_if_interrupted();
        if (!goes_into_blocks(item, item.size) || item.object.empty())
            continue;
        if (!is_in_blocks(item)) {
            take(manifest.server_name, item);
            changed = true;
        }
        if (is_in_blocks(item))
            m_latest[{manifest.server_name, item.path}] = {item.object, item.map};
    }
    place();
    for (const Rewritten& one : m_rewritten)
        m_latest[{manifest.server_name, one.item->path}] = {one.item->object, one.item->map};
    if (changed)
        m_store.rewrite_manifest(set, serialize(manifest));
    m_store.keep_added();
    ++m_result.sets;
}

// A content that another set has, too, is there by now.
void SetConverter::take(const std::string& server, ManifestItem& item) {
    auto known = m_by_object.find(item.object);
    if (known == m_by_object.end())
        return write(server, item);
    item.object = known->second.name;
    item.map = known->second.map;
    item.stored_size = 0;
    ++m_result.contents;
}

void SetConverter::write(const std::string& server, ManifestItem& item) {
    auto earlier = m_latest.find({server, item.path});
    std::unique_ptr<ObjectWriter> writer = m_store.create_content(
        earlier != m_latest.end() ? std::optional(earlier->second) : std::nullopt);
    ObjectCheck check = m_store.read_object(item.object, [&](Bytes bytes) {
        throw_if_interrupted();
        writer->write(bytes);
    });
    if (check.problem.empty() && check.size != item.size)
        check.problem = fmt::format("has {} bytes, not the {} of the set", check.size, item.size);
    if (check.problem.empty())
        m_rewritten.push_back({&item, item.object, writer->finish()});
    else
        m_result.left_over.push_back(fmt::format("{}: its object {} {}", for_terminal(item.path),
                                                 item.object, check.problem));
}

// From here on the contents can be read: they are, before a set relies on them.
void SetConverter::place() {
    FinishedContents finished = m_store.finish_contents();
    m_store.flush();
    m_stored_size += finished.stored_size;
    for (Rewritten& one : m_rewritten) {
        one.item->object = one.stored.hash;
        FinishedContents::Content content{one.stored.map, 0};
        if (one.stored.number)
            content = finished.contents.at(*one.stored.number);
        one.item->map = content.place;
        one.item->stored_size = content.stored_size;
        one.item->changed_size = one.stored.changed_size;
        require_same(one);
        m_by_object[one.object] = {one.item->object, one.item->map};
        ++m_result.contents;
    }
}

void SetConverter::require_same(const Rewritten& one) const {
    Sha256 digest;
    ObjectCheck check = read_item(m_store, *one.item, [&](Bytes bytes) {
        throw_if_interrupted();
        digest.update(bytes);
    });
    if (!check.problem.empty() || digest.finish() != one.object)
        throw ClientError(ExitCode::damage_found,
                          fmt::format("what was stored of {} cannot be read back: its content {}",
                                      for_terminal(one.item->path),
                                      check.problem.empty() ? "differs" : check.problem),
                          "check the disk of the store, and run `qrtln verify`; the sets are as "
                          "they were");
}

// Readers have the names of objects from the manifests that were replaced.
bool is_read(Store& store) {
    for (const std::string& set : store.set_names())
        if (!store.take_set(set))
            return true;
    return false;
}

} // namespace

ConvertedSets convert_sets(Store& store) {
    ConvertedSets result;
    SetConverter converter(store, result);
    try {
        for (const std::string& set : store.set_names())
            converter.convert(set);
    } catch (...) {
        store.discard_added();
        throw;
    }
    if (result.damaged_manifest)
        return result; // what that set needs is not known
    if (is_read(store)) {
        result.left_over.emplace_back("the objects that are in blocks now, as somebody reads sets: "
                                      "convert again when that has ended");
        return result;
    }
    try {
        std::uint64_t freed =
            store.reclaim(store_use(store, {}), false, throw_if_interrupted).bytes;
        result.freed_bytes = freed - std::min(freed, converter.stored_size());
    } catch (const ClientError& failure) {
        if (failure.exit_code() != static_cast<int>(ExitCode::damage_found))
            throw;
        result.left_over.push_back("the objects that are in blocks now: " +
                                   std::string(failure.what()));
    }
    return result;
}

} // namespace qrtln
