// The packs and maps that a run makes. They have temporary names until the run's contents are all
// there: a run that is killed before leaves nothing that the next one does not remove.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/store/content_map.h"
#include "client/store/digest.h"
#include "client/store/pack_folder.h"
#include "client/store/pack_writer.h"
#include "client/store/sealing.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

// A block of an older pack that is damaged, and its good copy in a new one.
struct BlockMend {
    std::string pack;
    std::uint32_t block = 0;
    std::uint32_t copy = 0;
};

// Frames of the open pack.
struct FrameRange {
    std::size_t first = 0;
    std::size_t behind = 0;
};

class NewPacks {
  public:
    // `folder` outlives it.
    explicit NewPacks(PackFolder& folder) : m_folder(folder) {}
    ~NewPacks() { discard(); }
    NewPacks(const NewPacks&) = delete;
    NewPacks& operator=(const NewPacks&) = delete;

    void set_block_size(std::uint32_t size) { m_block_size = size; }
    void compress_at(CompressionLevel level) { m_level = level; }
    std::uint32_t block_size() const { return m_block_size; }
    const PackFolder& folder() const { return m_folder; }

    // --- for the writer of a content. All of it throws ClientError.
    // The pack that takes the next blocks. One of several contents, until it is large enough.
    PackWriter& pack();
    // A content is whole. In its map the pack that pack() gave has an empty id, which has its new
    // blocks in `frames`; `mends` have their copies there. Returns its number, from 0 on.
    std::size_t add(ContentMap map, FrameRange frames, std::vector<BlockMend> mends);
    // A content of which that pack has the blocks from `first` on does not come to its end.
    void abandon(std::uint32_t first) noexcept;

    // --- the run
    // As the function of the Store says. The numbers of contents begin anew.
    FinishedContents finish();
    // Flushes the folders. Throws ClientError.
    void flush();
    // Removes what this run made, as far as that goes.
    void discard() noexcept;
    // It stays from here on.
    void keep() noexcept { m_added.clear(); }

  private:
    struct File {
        FileDescriptor file;
        std::string temporary;              // its name in its folder
        std::unique_ptr<FileSealer> sealer; // what writes to it
    };
    struct AddedFile {
        int folder;
        std::string name;
    };
    // Nothing is added to it any more.
    struct ClosedPack {
        std::unique_ptr<PackWriter> writer; // nothing once it is written
        File file;
        std::string id;
        std::vector<BlockMend> mends;
        std::vector<std::pair<std::size_t, FrameRange>> contents; // by their numbers
    };

    File create(int folder, const char* what);
    void close(File& file, const char* what);
    void put_in_place(FileKind kind, const std::string& temporary, const std::string& id);
    std::vector<AddedFile>::iterator added(const std::string& name) noexcept;
    void forget_added(const std::string& name) noexcept; // REQUIRES: it is noted
    void drop_abandoned();
    void close_pack();
    void write_closed(bool all);
    void send(ClosedPack& closed);
    void forget_closed() noexcept;
    void mend();
    void write_map(const ContentMap& map, std::size_t number);

    PackFolder& m_folder;
    std::uint32_t m_block_size = usual_block;
    CompressionLevel m_level = usual_compression;
    unsigned m_next_temporary = 0;
    std::optional<FrameQueue> m_queue;
    File m_pack_file;
    std::unique_ptr<PackWriter> m_pack; // the open one
    bool m_abandoned = false;           // no content uses it, nor will
    struct WaitingContent {
        std::size_t number;
        ContentMap map;
        FrameRange frames;
    };
    std::vector<WaitingContent> m_waiting; // for its id
    std::vector<BlockMend> m_mends;        // with copies in the open pack
    std::deque<ClosedPack> m_closed;
    std::size_t m_first_unwritten = 0; // of these
    std::size_t m_first_unflushed = 0;
    File m_map_file;
    std::optional<Sha256> m_map_digest;
    std::uint64_t m_map_size = 0;
    FinishedContents m_contents;
    std::vector<AddedFile> m_added;
    bool m_renamed = false; // a file of the folders was, and they are not flushed yet
};

} // namespace qrtln
