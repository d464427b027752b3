#include "client/backup/operation.h"

#include "client/backup/attachment_backup.h"
#include "client/backup/commit.h"
#include "client/backup/content_reader.h"
#include "client/backup/database_links.h"
#include "client/backup/item_backup.h"
#include "client/backup/log_checks.h"
#include "client/backup/module_items.h"
#include "client/backup/other_files.h"
#include "client/backup/passed_over.h"
#include "client/backup/run.h"
#include "client/backup/start.h"
#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"

#include <ctime>
#include <utility>

namespace qrtln {

namespace {

class BackupOperation {
  public:
    BackupOperation(const BackupContext& context, BackupRequest request)
        : m_run(context, std::move(request)) {}
    Manifest run();

  private:
    bool store_set();
    void give_up() noexcept;

    BackupRun m_run;
    ContentReader m_reader{m_run};
    DatabaseLinks m_links{m_run, m_reader};
    AttachmentBackup m_attachments{m_run, m_reader};
    PassedOver m_passed_over{m_run, m_reader};
    ItemBackup m_item{m_run, m_reader, m_links, m_attachments, m_passed_over};
    ModuleItems m_items{m_run, m_item, m_passed_over};
    OtherFiles m_other_files{m_run, m_reader, m_links};
    LogChecks m_logs{m_run};
};

Manifest BackupOperation::run() {
    try {
        if (!store_set()) {
            give_up();
            m_run.manifest.set.clear();
            return std::move(m_run.manifest);
        }
    } catch (...) {
        give_up();
        throw;
    }
    m_run.progress.reset();
    m_run.log_session.reset();
    m_run.session.reset();
    if (int error = m_run.temporary->remove(); error != 0)
        print_message("warning: the temporary folder could not be removed: " +
                      system_error_text(error));
    return std::move(m_run.manifest);
}

// A crash before the manifest is written leaves no set, and what was prepared is owed. One after
// that only makes the server keep logs that are stored already. Returns false, with the server not
// told of anything yet, when there is nothing that a set would be for.
bool BackupOperation::store_set() {
    make_room(m_run); // 1. a private folder, with room for the largest copy
    m_run.manifest.started = std::time(nullptr);
    start_operation(m_run);    // 2. the module is asked for items of this level
    describe_set(m_run);       // 3. whose server, and on which set it builds
    m_items.store_all();       // 4. each item: owed, prepared, read, finished
    m_passed_over.add_all();   // 5. what the module did not reach: failed
    m_attachments.store_all(); // 6. files of attachments, the youngest too
    m_other_files.store_all(); // 7. what the module does not know
    m_logs.check_sizes();      // 8. a short log fails
    throw_if_interrupted();
    if (m_run.holds_nothing())
        return false;
    commit_set(m_run, m_logs); // 9. objects flushed, manifest written; 10. the server hears of it
    return true;
}

// Leaves the server as after a failed run and the store as before it. The first failure is what
// gets reported: those of the clean-up are not.
void BackupOperation::give_up() noexcept {
    m_run.progress.reset();
    if (m_run.log_session)
        m_run.log_session->session().abandon();
    m_run.log_session.reset();
    if (m_run.session)
        m_run.session->abandon();
    m_run.session.reset();
    m_run.context.store.discard_added();
    m_run.owed_ahead.strike_unprepared();
    m_run.temporary.reset();
}

} // namespace

Manifest run_backup_operation(const BackupContext& context, BackupRequest request) {
    return BackupOperation(context, std::move(request)).run();
}

} // namespace qrtln
