#include "client/store/content_check.h"

#include "client/base/ordered_work.h"
#include "client/store/digest.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace qrtln {

void check_whole_pack(const StoredFile& file, const std::string& id,
                      const std::function<void()>& between) {
    PackReader pack(file);
    if (pack.id() != id)
        throw PackDamage{"has hashes of blocks that do not make up its name"};
    LoadedFrames frames;
    std::vector<std::unique_ptr<FrameLoader>> loaders;
    OrderedWork work(most_loaded_bytes);
    loaders.resize(work.workers());
    for (const PackFrame& frame : pack.table().frames) {
        between();
        std::shared_ptr<LoadedFrame> loaded = frames.get();
        work.add(
            pack.table().plain_size_of(frame.first_block, frame.blocks),
            [&, loaded](std::size_t worker) {
                if (!loaders[worker])
                    loaders[worker] = std::make_unique<FrameLoader>();
                pack.load(frame, *loaders[worker], *loaded);
            },
            [&, loaded] {
                for (std::uint32_t i = 0; i < frame.blocks; ++i)
                    if (i >= loaded->hashes.size() ||
                        shorten(loaded->hashes[i]) != pack.hash(frame.first_block + i))
                        throw PackDamage{
                            fmt::format("has a damaged block {}", frame.first_block + i)};
            });
    }
    work.finish();
}

void check_map_file(const StoredFile& file, const std::string& hash) {
    constexpr std::uint64_t piece = std::uint64_t{1} << 20;
    Sha256 digest;
    std::vector<std::byte> bytes;
    for (std::uint64_t at = 0; at < file.size; at += bytes.size()) {
        bytes.resize(std::min(piece, file.size - at));
        file.read(at, bytes);
        digest.update(bytes);
    }
    if (digest.finish() != hash)
        throw PackDamage{"does not have the content that its name tells"};
}

ContentCheck::ContentCheck(const PackFolder& folder, std::function<void()> between)
    : m_folder(folder), m_between(std::move(between)) {}

std::string ContentCheck::add(const BlockContent& content, std::uint64_t size) {
    try {
        ContentMap map = m_folder.read_map(content.map, content.name);
        if (map.size != size)
            return fmt::format("has {} bytes, which is not the size in the manifest", map.size);
        m_use.add(map);
        return {};
    } catch (const PackDamage& damage) {
        return damage.problem;
    }
}

void ContentCheck::check_pack(const std::string& id, bool all_blocks) {
    try {
        std::unique_ptr<PackReader> pack = m_folder.open_pack(id);
        if (pack->id() != id)
            throw PackDamage{"has hashes of blocks that do not make up its name"};
        check_blocks(*pack, id, all_blocks);
    } catch (const PackDamage& damage) {
        m_damaged[id].problem = damage.problem;
    }
}

void ContentCheck::check_blocks(PackReader& pack, const std::string& id, bool all_blocks) {
    std::set<std::uint32_t> damaged;
    m_found.begin_pack(id, pack.table().blocks);
    OrderedWork work(most_loaded_bytes);
    m_loaders.resize(work.workers());
    for (const PackFrame& frame : pack.table().frames) {
        m_between();
        bool wanted = all_blocks;
        for (std::uint32_t i = 0; i < frame.blocks && !wanted; ++i)
            wanted = m_use.uses(id, frame.first_block + i);
        if (!wanted)
            continue;
        std::shared_ptr<LoadedFrame> loaded = m_frames.get();
        work.add(
            pack.table().plain_size_of(frame.first_block, frame.blocks),
            [&, loaded](std::size_t worker) {
                if (!m_loaders[worker])
                    m_loaders[worker] = std::make_unique<FrameLoader>();
                pack.load(frame, *m_loaders[worker], *loaded);
            },
            [&, loaded] { take_frame(pack, frame, *loaded, damaged); });
    }
    work.finish();
    // What contents are made of is there at all: a pack that was written anew lacks what is dead.
    if (auto used = m_use.packs().find(id); used != m_use.packs().end())
        for (std::uint32_t block = 0; block < used->second.size(); ++block)
            if (used->second[block] && pack.table().frame_of(block) == nullptr)
                damaged.insert(block);
    if (!damaged.empty())
        m_damaged[id].blocks = std::move(damaged);
}

// Of a frame that cannot be read no block can be had.
void ContentCheck::take_frame(PackReader& pack, const PackFrame& frame, const LoadedFrame& loaded,
                              std::set<std::uint32_t>& damaged) {
    m_checked_bytes += loaded.plain.size();
    for (std::uint32_t i = 0; i < frame.blocks; ++i)
        if (i >= loaded.hashes.size() ||
            shorten(loaded.hashes[i]) != pack.hash(frame.first_block + i))
            damaged.insert(frame.first_block + i);
    m_found.put(frame.first_block, loaded.hashes);
}

void ContentCheck::add_to_name(ContentName& name, const BlockRun& run, const std::string& id) {
    for (std::uint32_t done = 0; done < run.blocks;) {
        std::span<const BlockHash> hashes = m_found.get(id, run.first + done, run.blocks - done);
        for (const BlockHash& hash : hashes)
            name.add(hash);
        done += static_cast<std::uint32_t>(hashes.size());
    }
}

std::string ContentCheck::problem_of(const BlockContent& content) {
    try {
        const ContentMap map = m_folder.read_map(content.map, content.name);
        const std::string problem = problem_by_packs(map);
        return problem.empty() ? problem_by_hashes(map) : problem;
    } catch (const PackDamage& damage) { // since its pack was checked
        return damage.problem;
    }
}

std::string ContentCheck::problem_of_packs(const BlockContent& content) {
    try {
        return problem_by_packs(m_folder.read_map(content.map, content.name));
    } catch (const PackDamage& damage) {
        return damage.problem;
    }
}

std::string ContentCheck::problem_by_packs(const ContentMap& map) const {
    for (const BlockRun& run : map.runs) {
        const std::string& id = map.packs[run.pack].id;
        const auto damaged = m_damaged.find(id);
        if (damaged == m_damaged.end())
            continue;
        const std::set<std::uint32_t>& blocks = damaged->second.blocks;
        const auto first = blocks.lower_bound(run.first);
        if (!damaged->second.problem.empty() ||
            (first != blocks.end() && *first < run.first + run.blocks))
            return fmt::format("lies in the pack {}, which is damaged there", id);
    }
    return {};
}

std::string ContentCheck::problem_by_hashes(const ContentMap& map) {
    ContentName name(map.block_size);
    std::uint64_t size = 0;
    std::vector<std::unique_ptr<PackReader>> packs(map.packs.size());
    for (const BlockRun& run : map.runs) {
        const std::string& id = map.packs[run.pack].id;
        if (!packs[run.pack])
            packs[run.pack] = m_folder.open_pack(id);
        PackReader& pack = *packs[run.pack];
        if (pack.table().block_size != map.block_size)
            return fmt::format("lies in the pack {}, which has blocks of another size", id);
        add_to_name(name, run, id);
        size += pack.table().plain_size_of(run.first, run.blocks);
        m_between();
    }
    return size == map.size && name.finish() == map.name
               ? ""
               : "does not have the content that its name tells";
}

} // namespace qrtln
