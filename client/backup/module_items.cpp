#include "client/backup/module_items.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/domino/original.h"
#include "client/module/host.h"

#include <fmt/format.h>

namespace qrtln {

void ModuleItems::store_all() {
    m_run.progress.emplace(m_run.request.scan.databases.size());
    for (std::string path; next(path);)
        m_items.store(path);
}

// Whether the module handed out another item.
bool ModuleItems::next(std::string& path) {
    throw_if_interrupted();
    m_run.session->forget_reasons(); // what the start reported is no error of an item
    m_run.told.server_status.reset();
    ModuleItem item = m_run.session->host().get_item();
    m_passed_over.note_unchecked(item.status == DB_NUM_I_OK ? item.name : std::string());
    path = item.name;
    if (item.status == DB_NUM_I_OK) {
        m_run.session->item_begun();
        return true;
    }
    if (item.status != DB_NUM_I_COMPLETE)
        note_listing_failure();
    return false;
}

// What was handed out before is worth keeping: the server counts its databases as backed up.
void ModuleItems::note_listing_failure() {
    throw_if_interrupted();
    std::string reason = server_reason(*m_run.session);
    if (totals(m_run.manifest).stored_items == 0)
        throw ClientError(ExitCode::server_error,
                          "the module cannot list the next item: " + for_terminal(reason),
                          "--verbose shows what the module did");
    m_run.listing_failed = !m_run.told.logs_not_listed;
    if (m_run.told.logs_not_listed && m_run.request.log_session && m_run.is_whole_full())
        reason = take_logs_in_session();
    if (m_run.listing_failed)
        m_run.set.add_failed(m_run.ini.data_directory, ItemKind::directory,
                             "the module cannot list what comes next: " + reason);
    else if (!reason.empty())
        m_run.set.add_failed(log_phase_item, ItemKind::log, reason);
}

std::string ModuleItems::server_reason(ModuleSession& session) const {
    return m_run.told.server_status
               ? fmt::format("{} (status {})", session.reason(), m_run.told.server_status->number)
               : session.reason();
}

// Returns why the logs are not all there; empty: they are.
std::string ModuleItems::take_logs_in_session() {
    print_message(
        "the server lists its transaction logs only in an archiving session: one is begun");
    std::string reason;
    try {
        m_run.log_session.emplace(
            m_run.context, m_run.temporary->path(),
            [this](const std::string& line) { m_run.told.read_log_phase(line); },
            [this](const std::string& line) { m_run.told.read_server_status(line); });
        auto wanted = [this](const std::string& path) {
            m_run.told.server_status.reset();
            return m_run.told.logs.contains(path) || item_kind_of(path) == ItemKind::log_control;
        };
        m_run.told.server_status.reset();
        if (!m_run.log_session->take(wanted,
                                     [this](const std::string& path) { m_items.store(path); }))
            reason = server_reason(m_run.log_session->session());
    } catch (const ClientError& failure) {
        // The databases are stored, whatever becomes of the second process.
        throw_if_interrupted();
        if (failure.exit_code() != static_cast<int>(ExitCode::server_error))
            throw;
        reason = failure.what();
    }
    if (!reason.empty() && m_run.log_session) {
        m_run.log_session->session().abandon();
        m_run.log_session.reset();
    }
    return reason;
}

} // namespace qrtln
