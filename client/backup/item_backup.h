// Stores one item that the module hands out: its copy is made, read, and finished.
#pragma once

#include "client/backup/attachment_backup.h"
#include "client/backup/content_reader.h"
#include "client/backup/database_links.h"
#include "client/backup/passed_over.h"
#include "client/backup/run.h"

#include <string>
#include <vector>

namespace qrtln {

class ItemBackup {
  public:
    // All of them outlive it.
    ItemBackup(BackupRun& run, ContentReader& reader, DatabaseLinks& links,
               AttachmentBackup& attachments, PassedOver& passed_over)
        : m_run(run), m_reader(reader), m_links(links), m_attachments(attachments),
          m_passed_over(passed_over) {}

    // The item is in the set afterwards, stored or failed, or somebody else's: an attachment
    // object, a database link, the notes.ini in use. The module has heard of its end.
    void store(const std::string& path);

  private:
    void leave_to_others();
    std::string prepare_and_read(ManifestItem& item);
    void store_content(ManifestItem item, const std::vector<std::string>& warnings);

    BackupRun& m_run;
    ContentReader& m_reader;
    DatabaseLinks& m_links;
    AttachmentBackup& m_attachments;
    PassedOver& m_passed_over;
};

} // namespace qrtln
