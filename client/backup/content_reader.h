// Reads one file into the store: one consistent content, or a reason why there is none.
#pragma once

#include "client/backup/run.h"
#include "client/base/file_descriptor.h"
#include "client/sets/known_damage.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace qrtln {

class ContentReader {
  public:
    // `run` outlives it.
    explicit ContentReader(BackupRun& run) : m_run(run) {}

    // Reads a file, or what was opened for it, as the content of `item`: sets its object and sizes,
    // and warnings where the file grew meanwhile, or its reason. Returns whether the file changed
    // so that another try may do. An interruption is a reason, too. Throws what the store throws.
    bool read(ManifestItem& item, const std::string& file);
    bool read(ManifestItem& item, FileDescriptor content);

  private:
    bool take_unchanged(ManifestItem& item, const struct stat& status);
    std::unique_ptr<ObjectWriter> create(const ManifestItem& item, std::uint64_t size);
    std::uint64_t copy(FileDescriptor& content, ObjectWriter& object, std::uint64_t expected,
                       std::string& problem);

    BackupRun& m_run;
    std::optional<KnownDamage> m_damage; // of contents that are not read again
    std::vector<std::byte> m_buffer;
};

} // namespace qrtln
