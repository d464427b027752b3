#include "client/store/pack_folder.h"

#include "client/base/error.h"
#include "client/base/permission.h"
#include "client/store/block_hash.h"
#include "client/store/canonical_json.h"
#include "client/store/digest.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr std::string_view pack_suffix = ".pack";
constexpr std::string_view map_suffix = ".map";
constexpr int damage_format = 1;
constexpr std::size_t maximal_damage_note = std::size_t{64} << 20;

std::string damage_note_name(const std::string& id) {
    return id + ".damaged";
}

void read_at(int file, std::uint64_t offset, std::span<std::byte> buffer) {
    while (!buffer.empty()) {
        ssize_t got = ::pread(file, buffer.data(), buffer.size(), static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw PackDamage{"cannot be read: " + system_error_text(errno)};
        if (got == 0)
            throw PackDamage{"ends too early"};
        offset += static_cast<std::uint64_t>(got);
        buffer = buffer.subspan(static_cast<std::size_t>(got));
    }
}

// A file of one of the folders.
struct PartFile {
    FileDescriptor file;
    std::uint64_t size = 0;
};

PartFile open_part(const StorePlace& place, int folder, const std::string& path) {
    std::string name = path.substr(path.rfind('/') + 1);
    PartFile part;
    struct stat status {};
    int error = folder < 0 ? ENOENT : 0;
    if (error == 0) {
        part.file = FileDescriptor(
            ::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!part.file || ::fstat(part.file.get(), &status) != 0)
            error = errno;
    }
    if (error != 0) {
        throw_if_no_permission("read", place.path(path), error);
        place.require_there();
        throw PackDamage{error == ENOENT ? "is missing"
                                         : "cannot be opened: " + system_error_text(error)};
    }
    if (!S_ISREG(status.st_mode))
        throw PackDamage{"is no file"};
    part.size = static_cast<std::uint64_t>(status.st_size);
    return part;
}

std::vector<std::string> list_ids(const StorePlace& place, const char* folder, int descriptor,
                                  std::string_view suffix, std::vector<std::string>* foreign) {
    std::vector<std::string> ids;
    if (descriptor < 0)
        return ids;
    for (const std::string& name : place.list_folder(descriptor, ".")) {
        std::string id = name.substr(0, name.rfind('.'));
        if (name == id + std::string(suffix) && is_sha256_hex(id))
            ids.push_back(id);
        else if (foreign != nullptr && name != damage_note_name(id))
            foreign->push_back(fmt::format("{}/{}", folder, name));
    }
    return ids;
}

// Reads a content along its map.
class ContentSource {
  public:
    ContentSource(const PackFolder& folder, const ContentMap& map) : m_folder(folder), m_map(map) {
        m_packs.resize(map.packs.size());
    }

    // Throws PackDamage with the name of the pack.
    void read(const std::function<void(Bytes)>& sink) {
        for (const BlockRun& run : m_map.runs) {
            try {
                read_run(run, sink);
            } catch (const PackDamage& damage) {
                throw PackDamage{fmt::format("lies in the pack {}, which {}",
                                             m_map.packs[run.pack].id, damage.problem)};
            }
        }
        if (m_read != m_map.size || m_name.finish() != m_map.name)
            throw PackDamage{"does not have the content that its name tells"};
    }

  private:
    void read_run(const BlockRun& run, const std::function<void(Bytes)>& sink) {
        std::unique_ptr<PackReader>& pack = m_packs[run.pack];
        if (!pack)
            pack = m_folder.open_pack(m_map.packs[run.pack].id);
        if (pack->table().block_size != m_map.block_size)
            throw PackDamage{"has blocks of another size"};
        for (std::uint32_t done = 0; done < run.blocks;) {
            auto [bytes, count] = pack->blocks_from(run.first + done, run.blocks - done);
            check(*pack, run.first + done, bytes, count);
            sink(bytes);
            done += count;
            m_read += bytes.size();
        }
    }

    void check(PackReader& pack, std::uint32_t first, Bytes bytes, std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i) {
            std::uint32_t size = pack.table().size_of(first + i);
            BlockHash hash = m_hasher(bytes.first(size));
            if (shorten(hash) != pack.hash(first + i))
                throw PackDamage{
                    fmt::format("has a block {} that differs from its SHA-256", first + i)};
            m_name.add(hash);
            bytes = bytes.subspan(size);
        }
    }

    const PackFolder& m_folder;
    const ContentMap& m_map;
    std::vector<std::unique_ptr<PackReader>> m_packs; // in the order of the map
    BlockHasher m_hasher;
    ContentName m_name{m_map.block_size};
    std::uint64_t m_read = 0;
};

} // namespace

std::string pack_file_name(const std::string& id) {
    return id + std::string(pack_suffix);
}

std::string map_file_name(const std::string& hash) {
    return hash + std::string(map_suffix);
}

void PackFolder::open(FileDescriptor packs, FileDescriptor maps, int store) {
    m_packs = std::move(packs);
    m_maps = std::move(maps);
    m_store = store;
}

std::unique_ptr<PackReader> PackFolder::open_pack(const std::string& id) const {
    PartFile part =
        open_part(m_place, m_packs.get(), fmt::format("{}/{}", pack_folder, pack_file_name(id)));
    auto file = std::make_shared<FileDescriptor>(std::move(part.file));
    return std::make_unique<PackReader>(
        PackSource{part.size, [file](std::uint64_t offset, std::span<std::byte> buffer) {
                       read_at(file->get(), offset, buffer);
                   }});
}

// It only makes a backup store more than it would: one that cannot be read says nothing.
std::set<std::uint32_t> PackFolder::damaged_blocks(const std::string& id) const {
    std::optional<std::string> bytes =
        read_small_file(m_packs.get(), damage_note_name(id), maximal_damage_note);
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
    std::string name = damage_note_name(id);
    if (blocks.empty())
        return ::unlinkat(m_packs.get(), name.c_str(), 0) == 0 || errno == ENOENT ? 0 : errno;
    return replace_file(m_place.path(fmt::format("{}/{}", pack_folder, name)),
                        to_canonical({{"format", damage_format}, {"blocks", blocks}}));
}

ContentMap PackFolder::read_map(const MapPlace& place, const std::string& name) const {
    std::string problem;
    std::optional<ContentMap> map;
    try {
        PartFile part = open_part(m_place, m_maps.get(),
                                  fmt::format("{}/{}", map_folder, map_file_name(place.file)));
        if (place.offset > part.size || place.size > part.size - place.offset)
            throw PackDamage{"ends too early"};
        std::vector<std::byte> frame(place.size);
        read_at(part.file.get(), place.offset, frame);
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
        ContentSource(*this, map).read(sink);
    } catch (const PackDamage& damage) {
        m_place.require_there();
        check.problem = damage.problem;
    }
    return check;
}

std::vector<std::string> PackFolder::packs(std::vector<std::string>* foreign) const {
    return list_ids(m_place, pack_folder, m_packs.get(), pack_suffix, foreign);
}

std::vector<std::string> PackFolder::maps(std::vector<std::string>* foreign) const {
    return list_ids(m_place, map_folder, m_maps.get(), map_suffix, foreign);
}

} // namespace qrtln
