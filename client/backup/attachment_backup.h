// Stores the attachment objects that the databases refer to, which come into being while those are
// copied.
#pragma once

#include "client/backup/attachment_objects.h"
#include "client/backup/content_reader.h"
#include "client/backup/run.h"

#include <set>
#include <string>

namespace qrtln {

class AttachmentBackup {
  public:
    // Both outlive it.
    AttachmentBackup(BackupRun& run, ContentReader& reader) : m_run(run), m_reader(reader) {}

    // Whether this backup saves a file as an attachment object, after the databases.
    bool takes(const ManifestItem& item) const;
    // The module handed one out, so that it was there.
    void note(const std::string& path) { m_listed.insert(path); }
    // REQUIRES: the databases are stored.
    void store_all();

  private:
    void store(const AttachmentObjects& objects, const std::string& path);

    BackupRun& m_run;
    ContentReader& m_reader;
    std::set<std::string> m_listed;
};

} // namespace qrtln
