// The items that the module hands out, one after another: databases, files, and the logs, for which
// a second operation is begun where the server lists them in no other.
#pragma once

#include "client/backup/item_backup.h"
#include "client/backup/passed_over.h"
#include "client/backup/run.h"

#include <string>

namespace qrtln {

class ModuleItems {
  public:
    // All of them outlive it.
    ModuleItems(BackupRun& run, ItemBackup& items, PassedOver& passed_over)
        : m_run(run), m_items(items), m_passed_over(passed_over) {}

    // Stores them all. Where the module cannot list the next one, a failed item says so; throws
    // ClientError(server_error) when nothing was stored before that.
    void store_all();

  private:
    bool next(std::string& path);
    void note_listing_failure();
    std::string take_logs_in_session();
    std::string server_reason(ModuleSession& session) const;

    BackupRun& m_run;
    ItemBackup& m_items;
    PassedOver& m_passed_over;
};

} // namespace qrtln
