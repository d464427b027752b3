#include "client/store/new_packs.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/ownership.h"
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

// Of small contents many share a pack of about this size.
constexpr std::uint64_t enough_for_a_pack = std::uint64_t{16} << 20;

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
    return made;
}

void NewPacks::close(File& file, const char* what) {
    if (::fsync(file.file.get()) != 0)
        m_folder.place().fail(fmt::format("flush {}", what), errno);
    if (int error = file.file.close_checked(); error != 0)
        m_folder.place().fail(fmt::format("close {}", what), error);
}

PackWriter& NewPacks::pack() {
    if (!m_pack) {
        m_pack_file = create(m_folder.pack_descriptor(), "a pack");
        m_full_at = enough_for_a_pack;
        m_pack.emplace(m_block_size, [this](Bytes bytes) {
            if (int error = write_all(m_pack_file.file.get(), bytes); error != 0)
                m_folder.place().fail("write a pack", error);
        });
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
    // How large it is is known only when nothing of it is compressed any more.
    if (m_pack && m_pack->plain_size() >= m_full_at) {
        m_pack->settle();
        if (m_pack->stored_size() >= enough_for_a_pack)
            close_pack();
        else
            m_full_at = m_pack->plain_size() + enough_for_a_pack - m_pack->stored_size();
    }
    return number;
}

void NewPacks::abandon(std::uint32_t first) noexcept {
    // Other contents have blocks before it: its own stay, until the pack is written anew.
    if (!m_pack || first > 0)
        return;
    m_pack.reset();
    m_pack_file.file.reset();
    ::unlinkat(m_folder.pack_descriptor(), m_pack_file.temporary.c_str(), 0);
    forget_added(m_pack_file.temporary);
}

void NewPacks::close_pack() {
    std::string id = m_pack->finish();
    close(m_pack_file, "a pack");
    m_contents.stored_size += m_pack->stored_size();
    for (const WaitingContent& content : m_waiting)
        m_contents.contents[content.number].stored_size =
            m_pack->size_of_frames(content.frames.first, content.frames.behind);
    m_pack.reset();
    m_closed.push_back({m_pack_file.temporary, id, std::exchange(m_mends, {})});
    for (WaitingContent& content : std::exchange(m_waiting, {})) {
        for (UsedPack& pack : content.map.packs)
            if (pack.id.empty())
                pack.id = id;
        write_map(content.map, content.number);
    }
}

void NewPacks::write_map(const ContentMap& map, std::size_t number) {
    if (!m_map_file.file) {
        m_map_file = create(m_folder.map_descriptor(), "a file of maps");
        m_map_digest.emplace();
        m_map_size = 0;
    }
    std::string frame = serialize(map);
    if (int error = write_all(m_map_file.file.get(), as_bytes(frame)); error != 0)
        m_folder.place().fail("write a map", error);
    m_map_digest->update(as_bytes(frame));
    m_contents.contents[number].place = {"", m_map_size, frame.size()};
    m_map_size += frame.size();
}

// A file of the same name has the same content, and may be damaged. It belongs to older sets, and
// what takes its place does.
void NewPacks::put_in_place(int folder, const std::string& temporary, const std::string& name) {
    bool exists = m_folder.place().exists(folder, name);
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
    if (m_pack)
        close_pack();
    for (const ClosedPack& pack : m_closed)
        put_in_place(m_folder.pack_descriptor(), pack.temporary, pack_file_name(pack.id));
    mend();
    m_closed.clear();
    if (m_map_file.file) {
        close(m_map_file, "a file of maps");
        std::string hash = m_map_digest->finish();
        put_in_place(m_folder.map_descriptor(), m_map_file.temporary, map_file_name(hash));
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

void NewPacks::discard() noexcept {
    for (const AddedFile& file : m_added)
        ::unlinkat(file.folder, file.name.c_str(), 0);
    m_added.clear();
    m_pack.reset();
    m_waiting.clear();
    m_mends.clear();
    m_closed.clear();
    m_map_file.file.reset();
    m_contents = {};
}

} // namespace qrtln
