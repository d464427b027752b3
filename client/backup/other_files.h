// Stores what lies in the data directory beside the files that the module hands out: key rings,
// pages, links, folders.
#pragma once

#include "client/backup/content_reader.h"
#include "client/backup/database_links.h"
#include "client/backup/held_files.h"
#include "client/backup/run.h"
#include "client/backup/system_files.h"

#include <string>
#include <sys/stat.h>

namespace qrtln {

class OtherFiles {
  public:
    // All of them outlive it.
    OtherFiles(BackupRun& run, ContentReader& reader, DatabaseLinks& links)
        : m_run(run), m_reader(reader), m_links(links) {}

    // REQUIRES: the module has handed out everything.
    void store_all();

  private:
    bool is_known(const std::string& path, const struct stat& status);
    void store_found(const FoundFile& found);
    void store_file(ManifestItem item, const struct stat& status);

    BackupRun& m_run;
    ContentReader& m_reader;
    DatabaseLinks& m_links;
    HeldFiles m_held; // of diff and incr
};

} // namespace qrtln
