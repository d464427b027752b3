#include "client/documents/module_run.h"

#include "client/base/interrupt.h"
#include "client/base/limits.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/module/control_variables.h"
#include "client/module/host.h"

#include <fmt/format.h>

namespace qrtln {

void DocumentModule::require_no_list() const {
    m_list.require_none();
}

// Where the set's copy goes. The folder that is announced has the live database.
std::string DocumentModule::announce(ModuleSession& session, const std::string& live) {
    session.forget_reasons();
    ModuleItem answer = session.host().set_item(DB_ITEM_TYPE_DIRECTORY, folder_of(live));
    if (answer.status == DB_NUM_I_OK)
        answer = session.host().set_item(DB_ITEM_TYPE_FILE, m_request.item.path);
    if (answer.status != DB_NUM_I_OK)
        throw ClientError(ExitCode::server_error, fmt::format("the module refused {}: {}",
                                                              for_terminal(m_request.item.path),
                                                              for_terminal(session.reason())));
    session.item_begun();
    if (!is_below(answer.name, m_copies.work_folder()) || !path_problem(answer.name).empty() ||
        name_of(answer.name) != name_of(m_request.item.path))
        throw ClientError(
            ExitCode::server_error,
            fmt::format("the module wants the copy written to {}, which is no place for it",
                        for_terminal(answer.name)));
    return answer.name;
}

DocumentRun DocumentModule::run(const std::string& live, DocumentKind kind,
                                const std::string& since, const std::vector<NoteId>& ids,
                                bool keep_copy) {
    const bool changed = kind == DocumentKind::changed;
    DocumentTrace trace;
    m_finishing = false;
    ++m_result.operations;
    DocumentRun run;
    ModuleSession session(
        m_context,
        [&](const std::string& line) {
            if (std::optional<OtherMoment> other = parse_other_moment(line))
                run.other = other;
        },
        [&](const std::string& line) { trace.take(line); });
    if (session.init(DB_TYPE_RST, DB_LEVEL_FULL,
                     {tmp_dir_variable(m_copies.work_folder()), whole_server_variable,
                      changed ? changed_documents_variable(since)
                              : deleted_documents_variable(since)}) != DB_NUM_I_OK)
        session.report_failed_start("restore of documents", session.reason());
    const std::string place = announce(session, live);
    m_copies.place_set_copy(place, keep_copy && changed);
    throw_if_interrupted();
    if (changed)
        m_list.place(ids);
    finish(session, run);
    run.notes = trace.notes();
    if (int error = m_list.remove(); error != 0)
        m_result.warnings.push_back("the list of note ids could not be removed from the data "
                                    "directory: " +
                                    system_error_text(error));
    m_copies.take_set_copy_back(place, keep_copy && !changed);
    if (!run.failure && session.close(run.good) != DB_NUM_I_OK)
        m_result.warnings.push_back("the server did not close the restore: " + session.reason());
    return run;
}

// The documents are restored when the module hears that its copy is there.
void DocumentModule::finish(ModuleSession& session, DocumentRun& run) {
    m_finishing = true;
    try {
        run.good = session.finish(DB_ITEM_SUCCESS) == DB_NUM_I_OK;
        if (!run.good)
            run.reason = session.reason();
    } catch (const ClientError& failure) {
        run.failure = failure;
        run.reason = failure.what();
    }
}

void require_meant(const DocumentRun& run) {
    if (run.other)
        throw ClientError(ExitCode::items_failed,
                          fmt::format("documents cannot be told by --since: {}; no document was "
                                      "changed",
                                      describe(*run.other)),
                          other_moment_hint);
}

void require_started(const DocumentRun& run, const ManifestItem& database) {
    if (run.good || !run.notes.empty())
        return;
    if (run.failure)
        throw *run.failure;
    throw ClientError(ExitCode::server_error,
                      fmt::format("the server cannot restore documents into {}: {}",
                                  for_terminal(database.path), for_terminal(run.reason)),
                      "no document was changed; is the database online? --verbose and --trace "
                      "show what the module did");
}

} // namespace qrtln
