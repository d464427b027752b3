#include "client/store/new_packs.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/ownership.h"
#include "client/store/mirror.h"
#include "client/store/pack_rewrite.h"
#include "client/store/state_folder.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <map>
#include <unistd.h>
#include <utility>

namespace qrtln {

namespace {

// Of small contents many share a pack of about this size, in plain bytes.
constexpr std::uint64_t enough_for_a_pack = std::uint64_t{64} << 20;
// Packs are flushed together at the end, and stay open until then: this many.
constexpr std::size_t most_unflushed = 64;
// The disk gets to work while a pack grows, so that little is left to flush.
constexpr std::uint64_t written_back_at_once = std::uint64_t{8} << 20;

} // namespace

NewPacks::File NewPacks::create(int folder, const char* what) {
    File made;
    made.temporary = fmt::format("incoming-{}{}", m_next_temporary++, temporary_suffix);
    made.file =
        FileDescriptor(::openat(folder, made.temporary.c_str(),
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!made.file)
        m_folder.place().fail(fmt::format("create {}", what), errno);
    m_added.push_back({folder, made.temporary});
    (void)give_to_owner_of(m_folder.store(), made.file.get());
    made.sealer = std::make_unique<FileSealer>(
        m_folder.place().sealing(),
        [this, fd = made.file.get(), what, unwritten = std::uint64_t{0}](Bytes bytes) mutable {
            if (int error = write_all(fd, bytes); error != 0)
                m_folder.place().fail(fmt::format("write {}", what), error);
            if ((unwritten += bytes.size()) >= written_back_at_once) {
                (void)::sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);
                unwritten = 0;
            }
        });
    return made;
}

void NewPacks::close(File& file, const char* what) {
    if (::fsync(file.file.get()) != 0)
        m_folder.place().fail(fmt::format("flush {}", what), errno);
    if (int error = file.file.close_checked(); error != 0)
        m_folder.place().fail(fmt::format("close {}", what), error);
}

PackWriter& NewPacks::pack() {
    drop_abandoned();
    if (!m_pack) {
        m_pack_file = create(m_folder.pack_descriptor(), "a pack");
        if (!m_queue)
            m_queue.emplace(m_level);
        m_pack = std::make_unique<PackWriter>(
            m_block_size, *m_queue,
            [sealer = m_pack_file.sealer.get()](Bytes bytes) { sealer->write(bytes); });
    }
    return *m_pack;
}

std::size_t NewPacks::add(ContentMap map, FrameRange frames, std::vector<BlockMend> mends) {
    m_mends.insert(m_mends.end(), mends.begin(), mends.end());
    std::size_t number = m_contents.contents.size();
    m_contents.contents.emplace_back();
    bool waits = std::any_of(map.packs.begin(), map.packs.end(),
                             [](const UsedPack& pack) { return pack.id.empty(); });
    if (!waits)
        write_map(map, number);
    else
        m_waiting.push_back({number, std::move(map), frames});
    if (m_pack && m_pack->plain_size() >= enough_for_a_pack)
        close_pack();
    write_closed(false);
    return number;
}

void NewPacks::abandon(std::uint32_t first) noexcept {
    // Other contents have blocks before it: its own stay, until the pack is written anew.
    if (m_pack && first == 0)
        m_abandoned = true;
}

void NewPacks::drop_abandoned() {
    if (!std::exchange(m_abandoned, false))
        return;
    m_queue->finish(); // its frames go nowhere from here on
    m_pack.reset();
    m_pack_file.file.reset();
    ::unlinkat(m_folder.pack_descriptor(), m_pack_file.temporary.c_str(), 0);
    forget_added(m_pack_file.temporary);
}

void NewPacks::close_pack() {
    ClosedPack closed;
    closed.id = m_pack->end();
    closed.writer = std::move(m_pack);
    closed.file = std::move(m_pack_file);
    closed.mends = std::exchange(m_mends, {});
    for (WaitingContent& content : std::exchange(m_waiting, {})) {
        for (UsedPack& pack : content.map.packs)
            if (pack.id.empty())
                pack.id = closed.id;
        write_map(content.map, content.number);
        closed.contents.emplace_back(content.number, content.frames);
    }
    m_closed.push_back(std::move(closed));
}

// Those whose frames are compressed, or all.
void NewPacks::write_closed(bool all) {
    for (; m_first_unwritten < m_closed.size(); ++m_first_unwritten) {
        ClosedPack& closed = m_closed[m_first_unwritten];
        if (!all && !closed.writer->settled())
            break;
        closed.writer->finish();
        closed.file.sealer->finish(stored_path(FileKind::pack, closed.id));
        m_contents.stored_size += closed.writer->stored_size();
        for (const auto& [number, frames] : closed.contents)
            m_contents.contents[number].stored_size =
                closed.writer->size_of_frames(frames.first, frames.behind);
        closed.writer.reset();
        closed.file.sealer.reset();
        if (m_folder.place().mirror() != nullptr) {
            send(closed);
            m_first_unflushed = m_first_unwritten + 1;
            continue;
        }
        (void)::sync_file_range(closed.file.file.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
        if (m_first_unwritten - m_first_unflushed >= most_unflushed)
            close(m_closed[m_first_unflushed++].file, "a pack");
    }
}

// To the store elsewhere, beside the packs that come: it is confirmed with the others at the end.
void NewPacks::send(ClosedPack& closed) {
    if (int error = closed.file.file.close_checked(); error != 0)
        m_folder.place().fail("close a pack", error);
    const std::string path = m_folder.place().path_of(FileKind::pack, closed.id);
    if (m_folder.place().mirror()->size_of(path) && m_folder.damaged_blocks(closed.id).empty()) {
        ::unlinkat(m_folder.pack_descriptor(), closed.file.temporary.c_str(), 0);
        forget_added(closed.file.temporary);
        return;
    }
    put_in_place(FileKind::pack, closed.file.temporary, closed.id);
    (void)m_folder.note_damage(closed.id, {});
    m_folder.place().mirror()->put(path, Mirror::Local::goes);
}

void NewPacks::write_map(const ContentMap& map, std::size_t number) {
    if (!m_map_file.file) {
        m_map_file = create(m_folder.map_descriptor(), "a file of maps");
        m_map_digest.emplace();
        m_map_size = 0;
    }
    std::string frame = serialize(map);
    m_map_file.sealer->write(as_bytes(frame));
    m_map_digest->update(as_bytes(frame));
    m_contents.contents[number].place = {"", m_map_size, frame.size()};
    m_map_size += frame.size();
}

// A file of the same name has the same content, and may be damaged. It belongs to older sets, and
// what takes its place does.
void NewPacks::put_in_place(FileKind kind, const std::string& temporary, const std::string& id) {
    const int folder =
        kind == FileKind::pack ? m_folder.pack_descriptor() : m_folder.map_descriptor();
    const std::string path = m_folder.place().path_of(kind, id);
    const std::string name = name_in_folder(path);
    const bool exists = m_folder.place().has(folder, path);
    if (::renameat(folder, temporary.c_str(), folder, name.c_str()) != 0)
        m_folder.place().fail("put a pack in place", errno);
    m_renamed = true;
    if (exists)
        forget_added(temporary);
    else
        added(temporary)->name = name;
}

// Older sets become whole again. Where that fails they stay as they are: the run's own set does not
// need it.
void NewPacks::mend() {
    std::map<std::string, std::map<std::uint32_t, std::pair<std::string, std::uint32_t>>> damaged;
    for (const ClosedPack& pack : m_closed)
        for (const BlockMend& one : pack.mends)
            damaged[one.pack][one.block] = {pack.id, one.copy};
    for (const auto& [id, copies] : damaged) {
        std::map<std::string, std::unique_ptr<PackReader>> packs;
        auto copy_of = [&, &by_block = copies](std::uint32_t block) -> std::vector<std::byte> {
            auto found = by_block.find(block);
            if (found == by_block.end())
                return {};
            auto& [pack, number] = found->second;
            if (!packs[pack])
                packs[pack] = m_folder.open_pack(pack);
            Bytes bytes = packs[pack]->blocks_from(number, 1).bytes;
            return {bytes.begin(), bytes.end()};
        };
        try {
            RewriteResult result = rewrite_pack(m_folder, {id, [](std::uint32_t) { return true; },
                                                           copy_of, m_folder.damaged_blocks(id)});
            if (result.rewritten)
                (void)m_folder.note_damage(id, result.damaged);
        } catch (const PackDamage&) {
        } catch (const ClientError&) {
        }
    }
}

FinishedContents NewPacks::finish() {
    drop_abandoned();
    if (m_pack)
        close_pack();
    write_closed(true);
    while (m_first_unflushed < m_closed.size())
        close(m_closed[m_first_unflushed++].file, "a pack");
    Mirror* mirror = m_folder.place().mirror();
    if (mirror == nullptr) {
        for (const ClosedPack& pack : m_closed)
            put_in_place(FileKind::pack, pack.file.temporary, pack.id);
        mend();
    }
    forget_closed();
    if (m_map_file.file) {
        const std::string hash = m_map_digest->finish();
        m_map_file.sealer->finish(stored_path(FileKind::map, hash));
        m_map_file.sealer.reset();
        close(m_map_file, "a file of maps");
        put_in_place(FileKind::map, m_map_file.temporary, hash);
        if (mirror != nullptr)
            mirror->put(m_folder.place().path_of(FileKind::map, hash), Mirror::Local::stays);
        m_contents.stored_size += m_map_size;
        for (FinishedContents::Content& content : m_contents.contents)
            content.place.file = hash;
    }
    return std::exchange(m_contents, {});
}

void NewPacks::flush() {
    if (!m_renamed)
        return;
    for (int folder : {m_folder.pack_descriptor(), m_folder.map_descriptor()})
        if (int error = flush_folder(folder); error != 0)
            m_folder.place().fail("flush the folders of packs", error);
    m_renamed = false;
}

std::vector<NewPacks::AddedFile>::iterator NewPacks::added(const std::string& name) noexcept {
    return std::find_if(m_added.begin(), m_added.end(),
                        [&](const AddedFile& file) { return file.name == name; });
}

void NewPacks::forget_added(const std::string& name) noexcept {
    m_added.erase(added(name));
}

void NewPacks::forget_closed() noexcept {
    m_closed.clear();
    m_first_unwritten = 0;
    m_first_unflushed = 0;
}

void NewPacks::discard() noexcept {
    for (const AddedFile& file : m_added) {
        ::unlinkat(file.folder, file.name.c_str(), 0);
        if (Mirror* mirror = m_folder.place().mirror(); mirror != nullptr)
            (void)mirror->take_back(
                (file.folder == m_folder.pack_descriptor() ? "packs/" : "maps/") + file.name);
    }
    m_added.clear();
    m_queue.reset(); // its frames go nowhere from here on
    m_pack.reset();
    m_abandoned = false;
    m_waiting.clear();
    m_mends.clear();
    forget_closed();
    m_map_file.file.reset();
    m_contents = {};
}

} // namespace qrtln
