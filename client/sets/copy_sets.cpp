#include "client/sets/copy_sets.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/text.h"
#include "client/sets/catalogue.h"
#include "client/sets/known_base.h"
#include "client/store/content_check.h"
#include "client/store/object_folder.h"
#include "client/store/pack_folder.h"
#include "client/store/pack_use.h"
#include "client/store/stored_file.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>
#include <utility>

namespace qrtln {

namespace {

// What keeps a set from being copied.
struct CannotCopy {
    std::string why;
};

void check_object(const StoredFile& file, const std::string& hash) {
    const std::string problem =
        read_object_file(file, hash, [](Bytes) { throw_if_interrupted(); }).problem;
    if (!problem.empty())
        throw PackDamage{problem};
}

class SetCopier {
  public:
    SetCopier(Store& from, Store& to) : m_from(from), m_to(to) {}

    CopiedSets::Set copy(const std::string& set, const std::string& manifest) {
        m_copied = {set, 0, 0};
        const CatalogueEntry entry = load_set(m_from, set);
        if (!entry.manifest)
            throw CannotCopy{"its manifest " + entry.problem};
        PackUse use;
        std::set<MapPlace> met;
        for (const ManifestItem& item : entry.manifest->items) {
            throw_if_interrupted();
            if (!is_in_blocks(item)) {
                if (!item.object.empty())
                    copy_object(item);
            } else if (met.insert(item.map).second) {
                copy_maps(item);
                add_use(use, item);
            }
        }
        for (const auto& [id, blocks] : use.packs())
            copy_pack(id, blocks);
        m_to.flush();
        m_to.write_manifest(set, manifest);
        return m_copied;
    }

  private:
    void copy_file(FileKind kind, const std::string& id, const std::string& what,
                   const std::function<void(const StoredFile&)>& check) {
        try {
            const StoredFile file = m_from.open_file(kind, id);
            m_to.take_in(kind, id, file, check);
            ++m_copied.files;
            m_copied.bytes += file.size;
        } catch (const PackDamage& damage) {
            throw CannotCopy{fmt::format("the {} {} {}", what, id, damage.problem)};
        }
    }

    void copy_object(const ManifestItem& item) {
        if (m_to.has_file(FileKind::object, item.object) && !m_to.is_noted_damaged(item.object))
            return;
        copy_file(FileKind::object, item.object, "object",
                  [&](const StoredFile& file) { check_object(file, item.object); });
        (void)m_to.note_object_damage(item.object, false);
    }

    void copy_maps(const ManifestItem& item) {
        if (!m_to.has_file(FileKind::map, item.map.file))
            copy_file(FileKind::map, item.map.file, "file of maps",
                      [&](const StoredFile& file) { check_map_file(file, item.map.file); });
    }

    void add_use(PackUse& use, const ManifestItem& item) {
        try {
            use.add(m_from.packs().read_map(item.map, item.object));
        } catch (const PackDamage& damage) {
            throw CannotCopy{fmt::format("{} {}", for_terminal(item.path), damage.problem)};
        }
    }

    // One that is there may have been written anew without blocks that no set there used.
    void copy_pack(const std::string& id, const std::vector<bool>& used) {
        const bool there = m_to.has_file(FileKind::pack, id);
        if (there && m_to.packs().damaged_blocks(id).empty() && has_blocks(m_to, id, used))
            return;
        if (there && !has_all_of(m_from, m_to, id))
            throw CannotCopy{
                fmt::format("of the pack {} each store has blocks that the other one lacks", id)};
        if (!has_blocks(m_from, id, used))
            throw CannotCopy{fmt::format("the pack {} is damaged, or lacks blocks of it", id)};
        copy_file(FileKind::pack, id, "pack", [&](const StoredFile& file) {
            check_whole_pack(file, id, throw_if_interrupted);
        });
        (void)m_to.packs().note_damage(id, {});
    }

    static bool has_blocks(const Store& store, const std::string& id,
                           const std::vector<bool>& used) {
        try {
            const auto pack = store.packs().open_pack(id);
            for (std::uint32_t block = 0; block < used.size(); ++block)
                if (used[block] && pack->table().frame_of(block) == nullptr)
                    return false;
            return true;
        } catch (const PackDamage&) {
            return false;
        }
    }

    // Whether `one` has every block of a pack that `other` has; nothing of a damaged one is.
    static bool has_all_of(const Store& one, const Store& other, const std::string& id) {
        std::vector<bool> blocks;
        try {
            const auto pack = other.packs().open_pack(id);
            blocks.resize(pack->table().blocks);
            for (const PackFrame& frame : pack->table().frames)
                std::fill_n(blocks.begin() + frame.first_block, frame.blocks, true);
        } catch (const PackDamage&) {
            return true;
        }
        return has_blocks(one, id, blocks);
    }

    Store& m_from;
    Store& m_to;
    CopiedSets::Set m_copied;
};

// What sets of the other store refer to, and which is in this one alone, or was.
std::map<std::string, std::string> not_copied(Store& from, Store& to) {
    const std::vector<std::string> there = to.set_names();
    const Store::AbsentSets absent_there = to.absent_sets();
    std::map<std::string, std::string> sets = absent_there.not_copied;
    sets.merge(from.absent_sets().all());
    for (const std::string& set : from.set_names())
        if (!std::binary_search(there.begin(), there.end(), set) && !sets.contains(set)) {
            const CatalogueEntry entry = load_set(from, set);
            sets[set] = entry.manifest ? entry.manifest->server_name : "";
        }
    std::erase_if(sets, [&](const auto& entry) {
        return std::binary_search(there.begin(), there.end(), entry.first) ||
               absent_there.forgotten.contains(entry.first);
    });
    return sets;
}

} // namespace

CopiedSets copy_sets(Store& from, Store& to, const std::vector<std::string>& sets, bool named) {
    CopiedSets result;
    const std::vector<std::string> there = to.set_names();
    if (int error = there.empty() ? note_copied(to) : 0; error != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot write into {}: {}", to.stored_runtime_directory(),
                                      system_error_text(error)));
    const std::map<std::string, std::string> forgotten = to.absent_sets().forgotten;
    to.note_not_copied(not_copied(from, to)); // also of those that an interruption leaves out
    SetCopier copier(from, to);
    for (const std::string& set : sets) {
        throw_if_interrupted();
        if (std::binary_search(there.begin(), there.end(), set)) {
            ++result.were_there;
            continue;
        }
        if (!named && forgotten.contains(set)) {
            result.forgotten.push_back(set);
            continue;
        }
        std::string problem;
        try {
            const std::optional<std::string> manifest = from.read_manifest(set, problem);
            if (!manifest)
                throw CannotCopy{"its manifest " + problem};
            result.copied.push_back(copier.copy(set, *manifest));
        } catch (const CannotCopy& failure) {
            result.left_out.push_back(fmt::format("{}: {}", set, failure.why));
        }
    }
    to.note_not_copied(not_copied(from, to));
    return result;
}

} // namespace qrtln
