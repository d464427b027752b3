// Takes back the room of what no set refers to any more.
#pragma once

#include "client/store/object_folder.h"
#include "client/store/pack_folder.h"
#include "client/store/pack_use.h"

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace qrtln {

// What the sets of a store refer to.
struct StoreUse {
    std::set<std::string> objects;
    std::set<std::string> maps; // files of them
    PackUse blocks;
};

struct Reclaimed {
    std::size_t objects = 0;
    std::size_t packs = 0;
    std::size_t rewritten = 0; // packs of which less than half was in use
    std::uint64_t bytes = 0;   // freed; planned: of packs that are to be written anew nearly
    std::vector<std::string> problems;
};

class Reclaim {
  public:
    // All of them outlive it. `between` is called now and then, and ends all by throwing: the next
    // reclaim goes on.
    Reclaim(const ObjectFolder& objects, const PackFolder& packs, const StoreUse& use,
            std::function<void()> between);

    // Without `changes`: what it would do. REQUIRES, with them: the sets that referred to what goes
    // are gone from the disk; nobody else writes to the store.
    Reclaimed run(bool changes);

  private:
    void remove_objects(Reclaimed& result, bool changes);
    void remove_maps(Reclaimed& result, bool changes);
    void take_packs(Reclaimed& result, bool changes);
    void take_pack(const std::string& id, Reclaimed& result, bool changes);
    void rewrite(const std::string& id, Reclaimed& result);

    const ObjectFolder& m_objects;
    const PackFolder& m_packs;
    const StoreUse& m_use;
    std::function<void()> m_between;
};

} // namespace qrtln
