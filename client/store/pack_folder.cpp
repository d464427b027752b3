#include "client/store/pack_folder.h"

#include "client/base/error.h"
#include "client/base/ordered_work.h"
#include "client/store/block_hash.h"
#include "client/store/canonical_json.h"
#include "client/store/mirror.h"
#include "client/store/sealing.h"
#include "client/store/stored_file.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <map>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr int damage_format = 1;
constexpr std::size_t maximal_damage_note = std::size_t{64} << 20;

std::vector<std::string> list_ids(const StorePlace& place, FileKind kind, const char* folder,
                                  int descriptor, std::vector<std::string>* foreign) {
    std::vector<std::string> ids;
    if (descriptor < 0)
        return ids;
    for (const std::string& name : place.list_part(descriptor, folder)) {
        if (std::optional<std::string> id = place.id_of(kind, name))
            ids.push_back(std::move(*id));
        else if (foreign != nullptr && !StorePlace::is_damage_note(name))
            foreign->push_back(fmt::format("{}/{}", folder, name));
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

// Reads a content along its map: frames are decompressed on all processors.
class ContentSource {
  public:
    ContentSource(const PackFolder& folder, const ContentMap& map,
                  const std::function<void(Bytes)>& sink)
        : m_folder(folder), m_map(map), m_sink(sink), m_packs(map.packs.size()) {
        m_loaders.resize(m_work.workers());
    }

    // Throws PackDamage with the name of the pack.
    void read() {
        if (Mirror* mirror = m_folder.place().mirror(); mirror != nullptr)
            expect(*mirror);
        for (const BlockRun& run : m_map.runs)
            read_run(run);
        m_work.finish();
        if (m_read != m_map.size || m_name.finish() != m_map.name)
            throw PackDamage{"does not have the content that its name tells"};
    }

  private:
    struct Pack {
        std::unique_ptr<PackReader> reader;
        // The frame that was asked for last: blocks of several packs take turns.
        const PackFrame* frame = nullptr;
        std::shared_ptr<LoadedFrame> loaded;
    };

    [[noreturn]] void fail(const BlockRun& run, const std::string& problem) const {
        throw PackDamage{
            fmt::format("lies in the pack {}, which {}", m_map.packs[run.pack].id, problem)};
    }

    Pack& open(const BlockRun& run) {
        Pack& pack = m_packs[run.pack];
        try {
            if (!pack.reader)
                pack.reader = m_folder.open_pack(m_map.packs[run.pack].id);
        } catch (const PackDamage& damage) {
            fail(run, damage.problem);
        }
        return pack;
    }

    // What a run needs of a pack, in the bytes of its file: whole frames. Nothing where they are
    // not all there: reading them fails.
    std::optional<ReadAhead::Range> range_of(const BlockRun& run, const Mirror& mirror) {
        const PackTable& table = open(run).reader->table();
        const StorePlace& place = m_folder.place();
        const PackFrame* first = table.frame_of(run.first);
        const PackFrame* last = table.frame_of(run.first + run.blocks - 1);
        std::string name = place.path_of(FileKind::pack, m_map.packs[run.pack].id);
        if (first == nullptr || last == nullptr)
            return std::nullopt;
        std::pair<std::uint64_t, std::uint64_t> bytes = {first->offset,
                                                         last->offset + last->stored_size};
        if (place.sealing() != nullptr)
            bytes = sealed_range(bytes.first, bytes.second);
        bytes.second = std::min(bytes.second, mirror.size_of(name).value_or(0));
        if (bytes.first >= bytes.second)
            return std::nullopt;
        return ReadAhead::Range{std::move(name), bytes.first, bytes.second};
    }

    // So that the place is asked for what comes while this is at work on what came.
    void expect(Mirror& mirror) {
        std::list<ReadAhead::Range> ranges;
        for (const BlockRun& run : m_map.runs) {
            const std::optional<ReadAhead::Range> range = range_of(run, mirror);
            if (range && !ranges.empty() && ranges.back().name == range->name &&
                range->begin >= ranges.back().begin && range->begin <= ranges.back().end)
                ranges.back().end = std::max(ranges.back().end, range->end);
            else if (range)
                ranges.push_back(*range);
        }
        mirror.expect(std::move(ranges));
    }

    void read_run(const BlockRun& run) {
        Pack& pack = open(run);
        const PackTable& table = pack.reader->table();
        if (table.block_size != m_map.block_size)
            fail(run, "has blocks of another size");
        for (std::uint32_t done = 0; done < run.blocks;) {
            const std::uint32_t block = run.first + done;
            const PackFrame* frame = table.frame_of(block);
            if (frame == nullptr)
                fail(run, fmt::format("has no block {}", block));
            const std::uint32_t before = block - frame->first_block;
            const std::uint32_t count = std::min(run.blocks - done, frame->blocks - before);
            add_blocks(run, pack, *frame, before, count);
            done += count;
        }
    }

    // `count` blocks of a frame, those `before` them left out.
    void add_blocks(const BlockRun& run, Pack& pack, const PackFrame& frame, std::uint32_t before,
                    std::uint32_t count) {
        OrderedWork::Work load;
        std::size_t size = 0;
        if (pack.frame != &frame) {
            pack.frame = &frame;
            pack.loaded.reset(); // its memory may be used again
            pack.loaded = m_frames.get();
            size = pack.reader->table().plain_size_of(frame.first_block, frame.blocks);
            load = [this, &pack, &frame, loaded = pack.loaded](std::size_t worker) {
                if (!m_loaders[worker])
                    m_loaders[worker] = std::make_unique<FrameLoader>();
                pack.reader->load(frame, *m_loaders[worker], *loaded);
            };
        }
        m_work.add(size, std::move(load),
                   [this, &run, &pack, &frame, loaded = pack.loaded, before, count] {
                       try {
                           take_blocks(*pack.reader, frame, *loaded, before, count);
                       } catch (const PackDamage& damage) {
                           fail(run, damage.problem);
                       }
                   });
    }

    void take_blocks(PackReader& pack, const PackFrame& frame, const LoadedFrame& loaded,
                     std::uint32_t before, std::uint32_t count) {
        if (!loaded.problem.empty())
            throw PackDamage{loaded.problem};
        for (std::uint32_t i = before; i < before + count; ++i) {
            if (shorten(loaded.hashes[i]) != pack.hash(frame.first_block + i))
                throw PackDamage{fmt::format("has a block {} that differs from its SHA-256",
                                             frame.first_block + i)};
            m_name.add(loaded.hashes[i]);
        }
        const PackTable& table = pack.table();
        Bytes bytes = Bytes(loaded.plain)
                          .subspan(table.plain_size_of(frame.first_block, before),
                                   table.plain_size_of(frame.first_block + before, count));
        m_read += bytes.size();
        m_sink(bytes);
    }

    const PackFolder& m_folder;
    const ContentMap& m_map;
    const std::function<void(Bytes)>& m_sink;
    std::vector<Pack> m_packs; // in the order of the map
    LoadedFrames m_frames;
    std::vector<std::unique_ptr<FrameLoader>> m_loaders; // one a thread
    ContentName m_name{m_map.block_size};
    std::uint64_t m_read = 0;
    OrderedWork m_work{most_loaded_bytes}; // the last: its threads use what stands above
};

} // namespace

void PackFolder::open(FileDescriptor packs, FileDescriptor maps, int store) {
    m_packs = std::move(packs);
    m_maps = std::move(maps);
    m_store = store;
}

std::unique_ptr<PackReader> PackFolder::open_pack(const std::string& id) const {
    return std::make_unique<PackReader>(
        open_stored_file(m_place, m_packs.get(), FileKind::pack, id));
}

// It only makes a backup store more than it would: one that cannot be read says nothing.
std::set<std::uint32_t> PackFolder::damaged_blocks(const std::string& id) const {
    std::optional<std::string> bytes =
        read_small_file(m_packs.get(), name_in_folder(m_place.damage_note_of(FileKind::pack, id)),
                        maximal_damage_note);
    std::string problem;
    std::optional<nlohmann::json> note;
    if (bytes)
        note = from_canonical(*bytes, problem);
    try {
        if (note && note->at("format") == damage_format)
            return note->at("blocks").get<std::set<std::uint32_t>>();
    } catch (const nlohmann::json::exception&) {
        return {};
    }
    return {};
}

int PackFolder::note_damage(const std::string& id, const std::set<std::uint32_t>& blocks) const {
    const std::string note = m_place.damage_note_of(FileKind::pack, id);
    if (blocks.empty())
        return ::unlinkat(m_packs.get(), name_in_folder(note).c_str(), 0) == 0 || errno == ENOENT
                   ? 0
                   : errno;
    return replace_file(m_place.path(note),
                        to_canonical({{"format", damage_format}, {"blocks", blocks}}));
}

ContentMap PackFolder::read_map(const MapPlace& place, const std::string& name) const {
    std::string problem;
    std::optional<ContentMap> map;
    try {
        if (Mirror* mirror = m_place.mirror(); mirror != nullptr)
            mirror->fetch_small(m_place.path_of(FileKind::map, place.file));
        const StoredFile file = open_stored_file(m_place, m_maps.get(), FileKind::map, place.file);
        if (place.offset > file.size || place.size > file.size - place.offset)
            throw PackDamage{"ends too early"};
        std::vector<std::byte> frame(place.size);
        file.read(place.offset, frame);
        map = parse_content_map(frame, problem);
        if (map && map->name != name)
            problem = "is that of another content";
    } catch (const PackDamage& damage) {
        problem = damage.problem;
    }
    if (!problem.empty())
        throw PackDamage{fmt::format("has a map, in the file {}, that {}", place.file, problem)};
    return std::move(*map);
}

ObjectCheck PackFolder::read_content(const std::string& name, const MapPlace& place,
                                     const std::function<void(Bytes)>& sink) const {
    ObjectCheck check;
    try {
        ContentMap map = read_map(place, name);
        check.size = map.size;
        ContentSource(*this, map, sink).read();
    } catch (const PackDamage& damage) {
        m_place.require_there();
        check.problem = damage.problem;
    }
    return check;
}

std::vector<std::string> PackFolder::packs(std::vector<std::string>* foreign) const {
    return list_ids(m_place, FileKind::pack, pack_folder, m_packs.get(), foreign);
}

std::vector<std::string> PackFolder::maps(std::vector<std::string>* foreign) const {
    return list_ids(m_place, FileKind::map, map_folder, m_maps.get(), foreign);
}

} // namespace qrtln
