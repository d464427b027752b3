// Whether contents in blocks are whole: each pack is read once, however many contents lie in it.
#pragma once

#include "client/store/found_hashes.h"
#include "client/store/pack_folder.h"
#include "client/store/pack_use.h"
#include "client/store/store.h"

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>

namespace qrtln {

struct DamagedPack {
    std::string problem;            // of all of it: "is missing"; empty: of blocks alone
    std::set<std::uint32_t> blocks; // that do not have the content that their hashes tell
};

// Throws PackDamage where a block of the pack in this file is not as its hash tells, or the pack
// not the one of this id. `between` as below.
void check_whole_pack(const StoredFile& file, const std::string& id,
                      const std::function<void()>& between);

// Throws PackDamage where this is not the file of maps of this hash. What reads a map does not look
// at every bit of it.
void check_map_file(const StoredFile& file, const std::string& hash);

class ContentCheck {
  public:
    // `folder` outlives it. `between` is called now and then, and ends all by throwing.
    ContentCheck(const PackFolder& folder, std::function<void()> between);

    // Reads the map of a content whose blocks are to be checked. Returns what is wrong with it, to
    // stand behind the content's name; `size`: what a set tells of it. Throws
    // ClientError(no_permission), as all below does.
    std::string add(const BlockContent& content, std::uint64_t size);
    // Checks the blocks that the contents use; of every block where `all_blocks` says so.
    void check_pack(const std::string& id, bool all_blocks);
    // What is wrong with a content by what was found in its packs; empty: nothing. REQUIRES: add()
    // found nothing, and its packs are checked.
    std::string problem_of(const BlockContent& content);

    // The same of a content of which not all packs were checked: by those that were.
    std::string problem_of_packs(const BlockContent& content);
    // To be called for a pack that is not checked, and not there.
    void note_missing(const std::string& id) { m_damaged[id].problem = "is missing"; }

    const PackUse& use() const { return m_use; }
    const std::map<std::string, DamagedPack>& damaged() const { return m_damaged; }
    // The plain bytes that were read.
    std::uint64_t checked_bytes() const { return m_checked_bytes; }

  private:
    std::string problem_by_packs(const ContentMap& map) const;
    std::string problem_by_hashes(const ContentMap& map);
    void check_blocks(PackReader& pack, const std::string& id, bool all_blocks);
    void take_frame(PackReader& pack, const PackFrame& frame, const LoadedFrame& loaded,
                    std::set<std::uint32_t>& damaged);
    void add_to_name(ContentName& name, const BlockRun& run, const std::string& id);

    const PackFolder& m_folder;
    std::function<void()> m_between;
    PackUse m_use;
    LoadedFrames m_frames;
    std::vector<std::unique_ptr<FrameLoader>> m_loaders; // one a thread
    FoundHashes m_found;                                 // of the blocks that could be read
    std::map<std::string, DamagedPack> m_damaged;
    std::uint64_t m_checked_bytes = 0;
};

} // namespace qrtln
