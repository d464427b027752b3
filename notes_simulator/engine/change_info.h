// The change information of a backup: the byte stream between NSFBackupGetNextChangeInfo and
// NSFBackupApplyNextChangeInfo. docs/simulator-files.md has the format.
#pragma once

#include "notes_simulator/base/byte_codec.h"
#include "notes_simulator/storage/side_files.h"
#include "notes_simulator/storage/sql.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <vector>

namespace notes_sim {

/// What the changed ranges of a copy are to become: of a database as it is, or as it was.
struct ChangedContent {
    std::uint64_t size = 0; ///< of the whole
    /// Fills the bytes from an offset on. Throws StatusError.
    std::function<void(std::span<std::uint8_t> bytes, std::uint64_t offset)> read;
};

/// The present content. The caller holds an exclusive lock on the database, which outlives the
/// result. Throws StatusError.
ChangedContent presentContent(Connection& database);

/// Writes the change information: the changed ranges with their content, and the size. Returns the
/// size of the file written. Throws StatusError.
std::uint64_t writeChangeInfo(const ChangedContent& source, std::vector<ChangedRange> changes,
                              const std::filesystem::path& file);

/// Applies change information that arrives in pieces of any size.
class ChangeInfoReader {
  public:
    /// Opens the copy that is to be changed. announced is the size of all change information.
    /// With checkOnly the information is only verified. Throws StatusError.
    ChangeInfoReader(const std::filesystem::path& copy, std::uint64_t announced, bool checkOnly);
    ~ChangeInfoReader();
    ChangeInfoReader(const ChangeInfoReader&) = delete;
    ChangeInfoReader& operator=(const ChangeInfoReader&) = delete;

    /// Takes the next piece; an empty one changes nothing. Throws StatusError(kBadChangeInfo).
    void take(std::span<const std::uint8_t> piece);
    /// All has been given: sets the copy's size. Throws StatusError(kChangeInfoIncomplete) when
    /// something is missing, and the copy is not usable then.
    void finish();

  private:
    bool takeHeader();
    bool takeRange();

    int m_fd = -1;
    bool m_checkOnly = false;
    bool m_failed = false;
    std::uint64_t m_announced = 0;
    std::uint64_t m_arrived = 0;
    std::uint64_t m_finalSize = 0;
    std::uint64_t m_rangesLeft = 0;
    bool m_haveHeader = false;
    bool m_haveTrailer = false;
    std::uint32_t m_checksum = 0;
    Bytes m_pending; ///< the beginning of a header, range or trailer that has not all arrived
};

} // namespace notes_sim
