// What was in a database at the start of its backup, for servers in the mood "before": kept page by
// page just before the page changes, and only while the reader has not got there.
#pragma once

#include "notes_simulator/storage/side_files.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>

namespace notes_sim {

/// The images of one context. They lie in two files of its folder, which several processes share;
/// all but setMark() is called under an exclusive lock on the database.
class BeforeImages {
  public:
    /// Reads the database as it is now.
    using Read = std::function<int(std::span<std::uint8_t> bytes, std::uint64_t offset)>;

    /// Begins them anew, for a database of this size. Throws StatusError.
    static void begin(const std::filesystem::path& contextFolder, std::uint64_t size);
    static void remove(const std::filesystem::path& contextFolder);
    /// None where none are kept. Throws StatusError.
    static std::unique_ptr<BeforeImages> open(const std::filesystem::path& contextFolder);
    ~BeforeImages();
    BeforeImages(const BeforeImages&) = delete;
    BeforeImages& operator=(const BeforeImages&) = delete;

    /// What changes below the mark is not kept from now on: the reader has it.
    void setMark(std::uint64_t mark);
    /// Before a range changes: keeps what is not kept yet, and tells about each piece of it.
    /// Returns a result of SQLite's.
    int keep(const ChangedRange& range, const Read& read,
             const std::function<int(const ChangedRange&)>& tell);
    /// What was there at the start. Throws StatusError.
    void content(std::span<std::uint8_t> bytes, std::uint64_t offset) const;

  private:
    BeforeImages(int index, int pages) : m_index(index), m_pages(pages) {}
    int keepPiece(std::uint64_t block, std::uint64_t blocks, const Read& read,
                  const std::function<int(const ChangedRange&)>& tell);

    int m_index = -1; // mark and size, then a byte for each block: whether it is kept
    int m_pages = -1; // sparse: each block where it is in the database
};

} // namespace notes_sim
