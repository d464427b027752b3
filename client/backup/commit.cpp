#include "client/backup/commit.h"

#include "client/base/error.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/domino/database_names.h"
#include "client/module/host.h"
#include "client/module/told.h"
#include "client/sets/known_base.h"

#include <ctime>
#include <fmt/format.h>

namespace qrtln {

namespace {

void strike_owed(BackupRun& run) {
    std::vector<std::string> stored(run.owed_ahead.unprepared().begin(),
                                    run.owed_ahead.unprepared().end());
    for (const ManifestItem& item : run.manifest.items)
        if (is_database_name(item.path) && item.status == ItemStatus::stored)
            stored.push_back(item.path);
    if (int error = run.context.owed.strike(run.ini.data_directory, stored); error != 0)
        print_message("warning: the list of owed databases could not be updated, the next backup "
                      "saves these databases again: " +
                      system_error_text(error));
}

// The close is what changes the index, and only with success.
void note_index(BackupRun& run) {
    if (!run.manifest.complete || run.manifest.level == "copy")
        return;
    if (!run.told.index_entry_lost.empty())
        throw ClientError(ExitCode::server_error,
                          "the module could not write its index of databases: " +
                              run.told.index_entry_lost);
    run.context.index.expect_close(run.manifest.set,
                                   {.data_directory = run.ini.data_directory,
                                    .child = run.session->host().process_id(),
                                    .folder = run.session->runtime_directory(),
                                    .whole_full = run.is_whole_full(),
                                    .has_entries = run.told.index_entries > 0,
                                    .begun_anew = !run.told.index_begun_anew.empty()});
}

// Whether the module closed an operation as it was told to; if not, `error` says why.
bool close_session(ModuleSession& session, bool good, std::string& error) {
    std::string problem;
    try {
        if (session.close(good) != DB_NUM_I_OK)
            problem = session.reason();
    } catch (const ClientError& failure) {
        problem = failure.what();
    }
    if (error.empty())
        error = problem;
    return problem.empty();
}

// What is wrong with the index after the close, if something is.
std::string check_closed_index(BackupRun& run, bool closed) {
    std::string problem;
    try {
        problem = run.context.index.check_closed(run.manifest.set, run.ini.data_directory, closed);
    } catch (const ClientError& failure) {
        return failure.what();
    }
    try {
        run.context.index.note_closed(run.manifest.set);
    } catch (const ClientError& failure) {
        print_message("warning: " + std::string(failure.what())); // the note stays as it is
    }
    return problem;
}

// The server hears that the set counts, or that it does not. What goes wrong in that is noted in
// the manifest, and thrown.
void close_operation(BackupRun& run) {
    std::string& error = run.manifest.close_error;
    try {
        note_index(run);
    } catch (const ClientError& failure) {
        error = failure.what();
    }
    bool good = run.manifest.complete && error.empty();
    if (run.log_session) // first: the other close would end its archiving session
        (void)close_session(run.log_session->session(), good, error);
    bool closed = close_session(*run.session, good, error) && good;
    if (error.empty())
        error = run.told.unmarked.problem(); // which the module counts as success
    std::string hint = "the server keeps its logs, and the next backup stores them again";
    if (!run.told.unmarked.problem().empty())
        hint += "; its disk fills up until it marks them: look at its console";
    if (std::string problem = check_closed_index(run, closed);
        !problem.empty() && (error.empty() || closed)) {
        error += (error.empty() ? "" : "; ") + problem;
        hint = fmt::format("make room and look at the rights in {}, then take a full backup: "
                           "`qrtln backup --level full` without DATABASE",
                           for_terminal(run.context.store.runtime_directory()));
    }
    if (error.empty())
        return;
    try {
        run.context.store.rewrite_manifest(run.manifest.set, serialize(run.manifest));
    } catch (const ClientError& failure) {
        print_message("warning: the manifest does not say so: " + std::string(failure.what()));
    }
    throw ClientError(
        ExitCode::server_error,
        fmt::format("the set {} was stored, but the server did not close the backup: {}",
                    run.manifest.set, for_terminal(error)),
        hint);
}

} // namespace

void commit_set(BackupRun& run, LogChecks& logs) {
    run.progress.reset();
    run.manifest.complete = totals(run.manifest).failed_items == 0;
    run.set.place_contents(run.context.store.finish_contents());
    run.context.store.flush();
    logs.check_chain();
    run.manifest.new_bytes = run.set.new_bytes();
    run.manifest.ended = std::time(nullptr);
    run.context.store.write_manifest(run.manifest.set, serialize(run.manifest));
    run.context.store.keep_added();
    if (run.is_whole_full() && run.manifest.complete)
        (void)note_base(run.context.store, run.manifest.set); // else the next is a full one again
    strike_owed(run);
    if (run.manifest.complete && !stored_logs(run.manifest).empty() &&
        run.request.before_logs_are_archived)
        run.request.before_logs_are_archived();
    close_operation(run);
}

} // namespace qrtln
