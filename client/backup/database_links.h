// Links of the server's: a database link is a small file that stands for a database elsewhere, a
// directory link one that stands for a folder. The module follows neither. Their own bytes are
// saved; what they lead to is saved where the module finds it, and else must not look saved.
#pragma once

#include "client/backup/content_reader.h"
#include "client/backup/held_files.h"
#include "client/backup/run.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <utility>

namespace qrtln {

class DatabaseLinks {
  public:
    // Both outlive it.
    DatabaseLinks(BackupRun& run, ContentReader& reader) : m_run(run), m_reader(reader) {}

    // Stores the bytes of a database link: for the server it is the database that it leads to.
    void store(ManifestItem item, const std::string& target);
    // The same of a file that the module did not hand out, if it is one that no set has as it is.
    void take(const std::string& path, const struct stat& status, const HeldFiles& held);
    // Adds a failed item for each database behind a directory link that nobody saves.
    void name_behind_directory_link(const std::string& link);
    // The same for the database links that were met. REQUIRES: all of them were met.
    void name_targets();
    // Databases behind links that are excluded.
    std::uint64_t excluded() const { return m_excluded; }

  private:
    bool is_reached(const std::string& path);

    BackupRun& m_run;
    ContentReader& m_reader;
    std::map<std::string, std::string> m_targets;               // by link
    std::optional<std::set<std::pair<dev_t, ino_t>>> m_reached; // the databases of the scan
    std::uint64_t m_excluded = 0;
};

} // namespace qrtln
