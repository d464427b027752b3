#include "client/store/reclaim.h"

#include "client/store/mirror.h"
#include "client/store/pack_rewrite.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace qrtln {

namespace {

std::uint64_t size_of(const StorePlace& place, int folder, const std::string& path) {
    if (const Mirror* mirror = place.mirror(); mirror != nullptr)
        return mirror->size_of(path).value_or(0);
    const std::string name = name_in_folder(path);
    struct stat status {};
    return ::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0
               ? static_cast<std::uint64_t>(status.st_size)
               : 0;
}

// Removes a file, or says how large it is.
std::uint64_t take(const StorePlace& place, int folder, const std::string& path, bool removes) {
    const std::uint64_t size = size_of(place, folder, path);
    if (!removes)
        return size;
    const bool removed = ::unlinkat(folder, name_in_folder(path).c_str(), 0) == 0;
    if (Mirror* mirror = place.mirror(); mirror != nullptr)
        mirror->remove(path);
    return removed || place.mirror() != nullptr ? size : 0;
}

} // namespace

Reclaim::Reclaim(const ObjectFolder& objects, const PackFolder& packs, const StoreUse& use,
                 std::function<void()> between)
    : m_objects(objects), m_packs(packs), m_use(use), m_between(std::move(between)) {}

// What goes as a whole first: what is written anew needs room.
Reclaimed Reclaim::run(bool changes) {
    Reclaimed result;
    remove_objects(result, changes);
    if (!m_packs.is_open())
        return result;
    remove_maps(result, changes);
    take_packs(result, changes);
    return result;
}

void Reclaim::remove_objects(Reclaimed& result, bool changes) {
    for (const std::string& hash : m_objects.list(nullptr)) {
        if (m_use.objects.contains(hash))
            continue;
        m_between();
        ++result.objects;
        result.bytes +=
            take(m_objects.place(), m_objects.descriptor(), m_objects.path_of(hash), changes);
        if (changes)
            (void)m_objects.note_damage(hash, false);
    }
}

void Reclaim::remove_maps(Reclaimed& result, bool changes) {
    for (const std::string& hash : m_packs.maps(nullptr))
        if (!m_use.maps.contains(hash))
            result.bytes += take(m_packs.place(), m_packs.map_descriptor(),
                                 m_packs.place().path_of(FileKind::map, hash), changes);
}

void Reclaim::take_packs(Reclaimed& result, bool changes) {
    std::vector<std::string> used;
    for (const std::string& id : m_packs.packs(nullptr)) {
        m_between();
        if (m_use.blocks.packs().contains(id)) {
            used.push_back(id);
            continue;
        }
        ++result.packs;
        result.bytes += take(m_packs.place(), m_packs.pack_descriptor(),
                             m_packs.place().path_of(FileKind::pack, id), changes);
        if (changes)
            (void)m_packs.note_damage(id, {});
    }
    // What lies elsewhere is put there once: a pack goes when nothing of it is used any more.
    if (m_packs.place().mirror() != nullptr)
        return;
    for (const std::string& id : used)
        take_pack(id, result, changes);
}

void Reclaim::take_pack(const std::string& id, Reclaimed& result, bool changes) {
    m_between();
    try {
        std::unique_ptr<PackReader> pack = m_packs.open_pack(id);
        std::uint64_t present = pack->table().present_blocks();
        if (m_use.blocks.used_blocks(id) * 2 >= present)
            return;
        ++result.rewritten;
        if (changes)
            return rewrite(id, result);
        for (const PackFrame& frame : pack->table().frames) {
            std::uint64_t dead = 0;
            for (std::uint32_t i = 0; i < frame.blocks; ++i)
                dead += m_use.blocks.uses(id, frame.first_block + i) ? 0 : 1;
            result.bytes += frame.stored_size * dead / frame.blocks;
        }
    } catch (const PackDamage& damage) {
        result.problems.push_back(fmt::format("the pack {} {}", id, damage.problem));
    }
}

void Reclaim::rewrite(const std::string& id, Reclaimed& result) {
    const StorePlace& place = m_packs.place();
    const std::string path = place.path_of(FileKind::pack, id);
    std::uint64_t before = size_of(place, m_packs.pack_descriptor(), path);
    auto keep = [&](std::uint32_t block) {
        m_between();
        return m_use.blocks.uses(id, block);
    };
    auto none = [](std::uint32_t) { return std::vector<std::byte>(); };
    std::set<std::uint32_t> damaged = rewrite_pack(m_packs, {id, keep, none}).damaged;
    std::uint64_t after = size_of(place, m_packs.pack_descriptor(), path);
    result.bytes += before - std::min(before, after);
    if (!damaged.empty())
        result.problems.push_back(fmt::format(
            "the pack {} has {} damaged blocks and stays as it is", id, damaged.size()));
}

} // namespace qrtln
