#include "client/store/pack_rewrite.h"

#include "client/base/ownership.h"
#include "client/store/pack_writer.h"
#include "client/store/sealing.h"
#include "client/store/state_folder.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace qrtln {

namespace {

// Copies a pack block by block.
class PackCopy {
  public:
    PackCopy(PackReader& from, PackWriter& to, const RewriteRequest& request)
        : m_from(from), m_to(to), m_request(request) {}

    // Returns the blocks that are damaged and have no replacement.
    std::set<std::uint32_t> run() {
        for (const PackFrame& frame : m_from.table().frames) {
            drop_until(frame.first_block);
            copy(frame);
        }
        drop_until(m_from.table().blocks);
        return std::move(m_damaged);
    }

  private:
    void drop_until(std::uint32_t block) {
        while (m_to.blocks() < block)
            m_to.add_dead(m_from.hash(m_to.blocks()), m_from.table().size_of(m_to.blocks()));
    }

    void copy(const PackFrame& frame) {
        for (std::uint32_t i = 0; i < frame.blocks; ++i) {
            std::uint32_t block = frame.first_block + i;
            std::vector<std::byte> bytes;
            if (m_request.keep(block))
                bytes = good_block(block);
            if (bytes.empty())
                drop_until(block + 1);
            else
                m_to.add(bytes, m_from.hash(block));
        }
    }

    // Empty for one that is lost.
    std::vector<std::byte> good_block(std::uint32_t block) {
        std::vector<std::byte> bytes = m_request.replacement(block);
        if (bytes.empty()) {
            try {
                Bytes own = m_from.blocks_from(block, 1).bytes;
                bytes.assign(own.begin(), own.end());
            } catch (const PackDamage&) { // its frame cannot be read
            }
        }
        if (bytes.empty() || shorten(m_hasher(bytes)) != m_from.hash(block)) {
            m_damaged.insert(block);
            bytes.clear();
        }
        return bytes;
    }

    PackReader& m_from;
    PackWriter& m_to;
    const RewriteRequest& m_request;
    BlockHasher m_hasher;
    std::set<std::uint32_t> m_damaged;
};

} // namespace

RewriteResult rewrite_pack(const PackFolder& folder, const RewriteRequest& request) {
    std::unique_ptr<PackReader> from = folder.open_pack(request.id);
    const std::string name = name_in_folder(folder.place().path_of(FileKind::pack, request.id));
    const std::string temporary = name + std::string(temporary_suffix);
    int packs = folder.pack_descriptor();
    FileDescriptor file(::openat(packs, temporary.c_str(),
                                 O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file)
        folder.place().fail("create a pack", errno);
    (void)give_to_owner_of(folder.store(), file.get());
    try {
        FileSealer sealer(folder.place().sealing(), [&](Bytes bytes) {
            if (int error = write_all(file.get(), bytes); error != 0)
                folder.place().fail("write a pack", error);
        });
        FrameQueue queue(usual_compression);
        PackWriter to(from->table().block_size, queue, [&](Bytes bytes) { sealer.write(bytes); });
        std::set<std::uint32_t> damaged = PackCopy(*from, to, request).run();
        if (to.end() != request.id)
            throw PackDamage{"has hashes of blocks that do not make up its name"};
        to.finish();
        sealer.finish(stored_path(FileKind::pack, request.id));
        // What cannot be read just now may be there the next time.
        if (!std::includes(request.lost.begin(), request.lost.end(), damaged.begin(),
                           damaged.end())) {
            ::unlinkat(packs, temporary.c_str(), 0);
            return {false, damaged};
        }
        if (::fsync(file.get()) != 0)
            folder.place().fail("flush a pack", errno);
        if (int error = file.close_checked(); error != 0)
            folder.place().fail("close a pack", error);
        if (::renameat(packs, temporary.c_str(), packs, name.c_str()) != 0)
            folder.place().fail("put a pack in place", errno);
        if (int error = flush_folder(packs); error != 0)
            folder.place().fail("flush the folder of packs", error);
        return {true, damaged};
    } catch (...) {
        ::unlinkat(packs, temporary.c_str(), 0);
        throw;
    }
}

} // namespace qrtln
