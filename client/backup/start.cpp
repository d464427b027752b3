#include "client/backup/start.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/limits.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/process_note.h"
#include "client/base/room.h"
#include "client/base/text.h"
#include "client/base/version.h"
#include "client/domino/notes_ini.h"
#include "client/module/control_variables.h"
#include "client/module/host.h"
#include "client/sets/catalogue.h"
#include "client/sets/latest_contents.h"

#include <ctime>
#include <fmt/format.h>

namespace qrtln {

namespace {

// Room for the names that the module gives its run-time data.
constexpr std::size_t runtime_name_room = 64;

DB_OPERATION_LEVEL module_level(const std::string& level) {
    if (level == "copy")
        return DB_LEVEL_COPY;
    if (level == "diff")
        return DB_LEVEL_DIFF;
    return level == "incr" ? DB_LEVEL_INCR : DB_LEVEL_FULL;
}

int init_operation(BackupRun& run) {
    run.session.emplace(
        run.context, [&run](const std::string& line) { run.told.read_log(line); },
        [&run](const std::string& line) { run.told.read_trace(line); });
    run.manifest.module_file = run.session->module_file();
    ModuleInfo info = run.session->host().info();
    run.manifest.module_client = info.client;
    run.manifest.module_version = info.version;
    run.manifest.module_release = info.release;
    if (info.item_handling != DB_FILE_PREPARE)
        throw ClientError(ExitCode::server_error,
                          fmt::format("the module {} does not hand out files",
                                      for_terminal(run.manifest.module_file)));

    std::vector<std::string> variables = {tmp_dir_variable(run.temporary->path())};
    if (run.is_whole_system())
        variables.emplace_back(whole_server_variable);
    for (const DatabaseArgument& argument : run.request.arguments)
        variables.push_back(database_variable(argument.value));
    if (run.request.level == "diff")
        variables.push_back(base_time_variable(run.request.base_started));
    return run.session->init(DB_TYPE_BCK, module_level(run.request.level), std::move(variables));
}

[[noreturn]] void report_failed_start(BackupRun& run) {
    std::string reason = run.session->reason();
    std::string hint;
    if (run.request.level == "incr" && !run.told.logging_style.empty()) {
        reason = fmt::format("the server has {}: {}", run.told.logging_style, reason);
        hint = "an incremental backup is one of archived logs (TRANSLOG_Style=1); take --level " +
               std::string(run.ini.linear_logging ? "full" : "diff or full");
    } else if (run.told.archiving_in_progress) {
        hint = "another program archives the server's logs: only one may; wait until it has ended";
    }
    run.session->report_failed_start("backup", reason, hint);
}

} // namespace

void make_room(BackupRun& run) {
    if (run.context.store.runtime_directory().size() + runtime_name_room >= module_path_size)
        throw ClientError(ExitCode::failed,
                          fmt::format("the path of {} is longer than the module takes",
                                      run.context.store.description()));
    run.temporary.emplace(absolute_path(run.context.tmp_dir), run.ini.data_directory);
    std::optional<std::uint64_t> room = free_bytes(run.temporary->path());
    if (room && *room < run.request.scan.largest)
        throw ClientError(ExitCode::failed,
                          fmt::format("the temporary directory {} has {} ({} bytes) free, the "
                                      "database {} needs {} ({} bytes)",
                                      for_terminal(run.context.tmp_dir), human_bytes(*room), *room,
                                      for_terminal(run.request.scan.largest_path),
                                      human_bytes(run.request.scan.largest),
                                      run.request.scan.largest),
                          "make room there, or name a folder with more room with --tmp-dir");
}

void start_operation(BackupRun& run) {
    int status = init_operation(run);
    if (status != DB_NUM_I_OK && run.told.archiving_in_progress && interrupt_signal() == 0) {
        // What a killed run left open on the server was ended by this failed start. One operation
        // a process: the second start gets a new one.
        print_message("the server had an archiving session open, which was ended: starting again");
        run.session->abandon();
        run.told.archiving_in_progress = false;
        status = init_operation(run);
    }
    if (status != DB_NUM_I_OK)
        report_failed_start(run);
    // With an index that lost its entries it passes databases over, and would forget the others'.
    if (!run.told.index_begun_anew.empty() && !run.is_whole_full())
        throw ClientError(ExitCode::server_error,
                          fmt::format("the module does not read its index of databases, which a "
                                      "backup of level {} builds on: {}",
                                      run.request.level, for_terminal(run.told.index_begun_anew)),
                          "look at the disk of the store, then take a full backup: `qrtln backup "
                          "--level full` without DATABASE");
}

void describe_set(BackupRun& run) {
    Manifest& set = run.manifest;
    set.level = run.request.level;
    set.set = new_set_name(run.context.store, set.started, run.request.level);
    set.reason = run.request.reason;
    set.base = run.request.base;
    set.whole_system = run.is_whole_system();
    for (const DatabaseArgument& argument : run.request.arguments)
        set.arguments.push_back(argument.path);
    set.predecessor = newest_set(run.context.store, run.ini.sets);
    run.earlier = latest_contents(run.context.store, run.ini.sets);
    set.server_name = run.ini.server_name;
    set.names_server = true;
    set.own_name = run.ini.own_name;
    set.id_file = run.ini.id_file;
    set.host = host_name();
    set.notes_ini = run.ini.file;
    set.data_directory = run.ini.data_directory;
    set.client_version = client_version();
}

} // namespace qrtln
