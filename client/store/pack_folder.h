// The folders of a store that hold its packs, and the maps of where in them each content is.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/store/content_map.h"
#include "client/store/pack_reader.h"
#include "client/store/store.h"
#include "client/store/store_place.h"

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace qrtln {

class PackFolder {
  public:
    // `place` outlives it.
    explicit PackFolder(const StorePlace& place) : m_place(place) {}

    // Takes the open folders, and the one of the store, whose owner new files get. Without them no
    // pack and no map is there.
    void open(FileDescriptor packs, FileDescriptor maps, int store);
    bool is_open() const { return static_cast<bool>(m_packs); }

    // A pack. Throws PackDamage, also for one that is missing, and ClientError(no_permission).
    std::unique_ptr<PackReader> open_pack(const std::string& id) const;
    // The blocks of it that somebody found damaged and noted.
    std::set<std::uint32_t> damaged_blocks(const std::string& id) const;
    // Notes them, beside the pack; none: removes the note. Returns 0 or the errno.
    int note_damage(const std::string& id, const std::set<std::uint32_t>& blocks) const;
    // A map, of the content `name`. Throws likewise.
    ContentMap read_map(const MapPlace& place, const std::string& name) const;
    // As the function of the Store says.
    ObjectCheck read_content(const std::string& name, const MapPlace& place,
                             const std::function<void(Bytes)>& sink) const;

    // The ids of all packs, and the names of all files of maps, sorted; other names go to `foreign`
    // if given. Throws ClientError when they cannot be listed.
    std::vector<std::string> packs(std::vector<std::string>* foreign) const;
    std::vector<std::string> maps(std::vector<std::string>* foreign) const;

    // --- for who writes to them. REQUIRES: they are open.
    const StorePlace& place() const { return m_place; }
    int store() const { return m_store; }
    int pack_descriptor() const { return m_packs.get(); }
    int map_descriptor() const { return m_maps.get(); }

  private:
    const StorePlace& m_place;
    int m_store = -1;
    FileDescriptor m_packs;
    FileDescriptor m_maps;
};

} // namespace qrtln
