#include "client/commands/diff_sets.h"

#include "client/base/interrupt.h"
#include "client/base/text.h"
#include "client/sets/catalogue.h"
#include "client/sets/name_pattern.h"
#include "client/store/pack_folder.h"
#include "client/store/pack_reader.h"

#include <algorithm>
#include <fmt/format.h>
#include <memory>

namespace qrtln {

namespace {

bool is_compared(const ManifestItem& item) {
    return item.status == ItemStatus::stored && item.kind != ItemKind::log &&
           item.kind != ItemKind::log_control;
}

// The blocks of two versions of one content, side by side.
class BlockComparison {
  public:
    BlockComparison(const PackFolder& folder, const ContentMap& before, const ContentMap& after)
        : m_folder(folder), m_before(before), m_after(after) {}

    // How many blocks of the later one the earlier has not at their place. Throws PackDamage.
    std::uint64_t changed() {
        std::uint64_t changed = 0;
        Cursor one{m_before}, other{m_after};
        while (!other.at_end()) {
            throw_if_interrupted();
            if (one.at_end()) // it became longer
                return changed + other.rest();
            const std::uint32_t count = std::min(one.left(), other.left());
            changed += changed_in_run(one, other, count);
            one.advance(count);
            other.advance(count);
        }
        return changed;
    }

  private:
    struct Cursor {
        const ContentMap& map;
        std::size_t run = 0;
        std::uint32_t in_run = 0;
        bool at_end() const { return run == map.runs.size(); }
        std::uint32_t left() const { return map.runs[run].blocks - in_run; }
        std::uint32_t block() const { return map.runs[run].first + in_run; }
        const std::string& pack() const { return map.packs[map.runs[run].pack].id; }
        void advance(std::uint32_t count) {
            in_run += count;
            if (in_run == map.runs[run].blocks) {
                in_run = 0;
                ++run;
            }
        }
        std::uint64_t rest() const {
            std::uint64_t blocks = left();
            for (std::size_t i = run + 1; i < map.runs.size(); ++i)
                blocks += map.runs[i].blocks;
            return blocks;
        }
    };

    // What lies elsewhere may be the same all the same: what was stored whole once more.
    std::uint64_t changed_in_run(const Cursor& one, const Cursor& other, std::uint32_t count) {
        if (one.pack() == other.pack() && one.block() == other.block())
            return 0;
        PackReader& old_pack = pack(one.pack());
        PackReader& new_pack = pack(other.pack());
        std::uint64_t changed = 0;
        for (std::uint32_t i = 0; i < count; ++i) {
            const ShortHash hash = old_pack.hash(one.block() + i); // both may be one pack
            changed += hash == new_pack.hash(other.block() + i) ? 0 : 1;
        }
        return changed;
    }

    PackReader& pack(const std::string& id) {
        std::unique_ptr<PackReader>& reader = m_packs[id];
        if (!reader)
            reader = m_folder.open_pack(id);
        return *reader;
    }

    const PackFolder& m_folder;
    const ContentMap& m_before;
    const ContentMap& m_after;
    std::map<std::string, std::unique_ptr<PackReader>> m_packs; // at most those of two maps
};

std::optional<std::pair<std::uint64_t, std::uint64_t>>
changed_blocks(Store& store, const ManifestItem& before, const ManifestItem& after) {
    if (!is_in_blocks(before) || !is_in_blocks(after))
        return std::nullopt;
    try {
        const ContentMap old_map = store.packs().read_map(before.map, before.object);
        const ContentMap new_map = store.packs().read_map(after.map, after.object);
        if (old_map.block_size != new_map.block_size)
            return std::nullopt;
        return std::pair(BlockComparison(store.packs(), old_map, new_map).changed(),
                         new_map.blocks());
    } catch (const PackDamage&) {
        return std::nullopt; // `qrtln verify` tells of it
    }
}

// One in blocks and one as a whole, in a store that was converted in part, have different names.
bool is_other_content(const ManifestItem& before, const ManifestItem& after) {
    bool same_form = is_in_blocks(before) == is_in_blocks(after);
    return before.object != after.object &&
           (same_form || before.size != after.size || before.mtime_ns != after.mtime_ns);
}

void compare_values(const ManifestItem& before, const ManifestItem& after,
                    std::vector<Difference::Value>& values) {
    auto compare = [&](const char* name, const std::string& one, const std::string& other) {
        if (one != other)
            values.push_back({name, one, other});
    };
    compare("kind", item_kind_name(before.kind), item_kind_name(after.kind));
    compare("target", before.target, after.target);
    compare("dbiid", before.dbiid, after.dbiid);
    if (!before.has_metadata || !after.has_metadata)
        return;
    auto named = [](const std::string& name, std::uint32_t id) {
        return name.empty() ? std::to_string(id) : fmt::format("{} ({})", name, id);
    };
    compare("mode", fmt::format("{:04o}", before.mode), fmt::format("{:04o}", after.mode));
    compare("owner", named(before.owner, before.uid), named(after.owner, after.uid));
    compare("group", named(before.group, before.gid), named(after.group, after.gid));
}

// Whether this set of a server, or one before it, tells what there was of the whole server.
bool has_complete_set(Store& store, const ServerScope& scope, const std::string& set) {
    for (const std::string& name : store.set_names()) {
        if (name > set)
            break;
        throw_if_interrupted();
        CatalogueEntry entry = load_set(store, name, scope);
        if (entry.manifest && entry.manifest->complete && entry.manifest->whole_system &&
            (entry.manifest->level == "full" || entry.manifest->level == "copy"))
            return true;
    }
    return false;
}

} // namespace

SetState state_of_set(Store& store, const Manifest& manifest) {
    SetState state;
    state.manifest = manifest;
    const ServerScope scope{manifest.server_name, manifest.own_name, manifest.data_directory,
                            manifest.data_directory};
    SelectionRequest request;
    request.all = true;
    request.at = manifest.set.substr(0, compact_time_length); // that very set, and those before it
    auto put = [&](SelectedItem&& selected) {
        std::string path = path_for_person(selected.item.path, manifest.data_directory);
        if (is_compared(selected.item))
            state.items.try_emplace(std::move(path), std::move(selected));
    };
    state.whole = has_complete_set(store, scope, manifest.set);
    if (state.whole)
        for (SelectedItem& selected : select_for_restore(store, scope, request).items)
            put(std::move(selected));
    else
        for (const ManifestItem& item : manifest.items)
            put({manifest.set, item});
    return state;
}

SetDifferences compare_sets(Store& store, const SetState& before, const SetState& after) {
    SetDifferences result;
    auto only_in = [&](DifferenceKind kind, bool other_whole, const std::string& path,
                       const SelectedItem& item) {
        if (!other_whole)
            result.not_compared.push_back(path);
        else if (kind == DifferenceKind::added)
            result.list.push_back({kind, path, nullptr, &item});
        else
            result.list.push_back({kind, path, &item, nullptr});
    };
    auto one = before.items.begin();
    auto other = after.items.begin();
    while (one != before.items.end() || other != after.items.end()) {
        throw_if_interrupted();
        if (other == after.items.end() ||
            (one != before.items.end() && one->first < other->first)) {
            only_in(DifferenceKind::gone, after.whole, one->first, one->second);
            ++one;
            continue;
        }
        if (one == before.items.end() || other->first < one->first) {
            only_in(DifferenceKind::added, before.whole, other->first, other->second);
            ++other;
            continue;
        }
        Difference difference{DifferenceKind::changed, one->first, &one->second, &other->second};
        const ManifestItem& old_item = one->second.item;
        const ManifestItem& new_item = other->second.item;
        difference.content = is_other_content(old_item, new_item);
        if (difference.content)
            difference.blocks = changed_blocks(store, old_item, new_item);
        compare_values(old_item, new_item, difference.values);
        if (difference.content || !difference.values.empty())
            result.list.push_back(std::move(difference));
        else
            ++result.same;
        ++one;
        ++other;
    }
    return result;
}

} // namespace qrtln
