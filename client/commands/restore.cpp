// `qrtln restore`: a plan first, then the operation that follows it.

#include "client/backup/attachment_objects.h"
#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/restore_text.h"
#include "client/commands/server.h"
#include "client/domino/notes_ini.h"
#include "client/module/temporary_directory.h"
#include "client/recovery/plan_text.h"
#include "client/restore/operation.h"
#include "client/restore/plan.h"
#include "client/restore/plan_text.h"
#include "client/sets/manifest.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>

namespace qrtln {

namespace {

constexpr const char* restore_help =
    R"(Restore databases, or the whole system with --all, from the store.
Each content is checked before anything of the server is touched. Without --activate and
--to the databases are placed in a folder below --tmp-dir and wait there; with --activate
the server puts each in the place of the live one, unless that is in use.)";

struct RestoreOptions : ServerOptions {
    std::vector<std::string> names;
    bool all = false;   // the whole system; without names nothing less says so
    std::string set;    // "" for the newest
    std::string at;     // or a moment
    std::string to;     // "" for the original place
    bool plain = false; // with to: without the folders
    bool activate = false;
    bool keep_replaced = false; // with activate: beside what takes its place
    bool dry_run = false;
};

// What a dry run can tell about how the real one would end.
int code_of(const RestorePlan& plan) {
    for (const RoomNeeded& room : plan.room)
        if (room.available < room.needed)
            return static_cast<int>(ExitCode::failed);
    bool refused = std::any_of(plan.items.begin(), plan.items.end(), [](const PlannedItem& item) {
        return item.action == RestoreAction::refuse;
    });
    return static_cast<int>(refused ? ExitCode::items_failed : ExitCode::complete);
}

// Those that the databases of the plan may need; nothing is looked for where all come back.
NeededObjects objects_for(Store& store, const NotesIni& ini, const RestoreRequest& request,
                          const RestorePlan& plan) {
    std::set<std::string> sets;
    for (const PlannedItem& planned : plan.items)
        if (planned.item.kind == ItemKind::database && planned.action != RestoreAction::refuse)
            sets.insert(planned.set);
    return request.selection.all ? NeededObjects{} : needed_objects(store, ini.sets, sets);
}

bool puts_databases_in_place(const RestorePlan& plan) {
    return std::any_of(plan.items.begin(), plan.items.end(), [](const PlannedItem& planned) {
        return planned.item.kind == ItemKind::database &&
               (planned.action == RestoreAction::activate ||
                planned.action == RestoreAction::write);
    });
}

// A list that is damaged is the next backup's to report: it keeps nobody from the databases.
std::optional<OwedDatabases> read_owed(const Store& store, std::string& problem) {
    try {
        return OwedDatabases(owed_file_of(store));
    } catch (const ClientError& failure) {
        problem = failure.what();
    }
    return std::nullopt;
}

// One restore: a plan first, then the operation that follows it.
class RestoreRun {
  public:
    explicit RestoreRun(const RestoreOptions& options)
        : m_options(options), m_server(options), m_ini(m_server.ini),
          m_in_place(!options.dry_run && options.to.empty()) {}
    int run();

  private:
    void open_store();
    void make_plan();
    int show_plan();
    int restore();
    void tell_left_out() const;
    std::string left_out_text() const;

    const RestoreOptions& m_options;
    CommandServer m_server;
    const NotesIni& m_ini;
    const bool m_in_place;
    std::string m_not_owed; // why what is put in place cannot be noted
    RestorePlan m_plan;
    NeededObjects m_objects;
    nlohmann::json m_document;
};

int RestoreRun::run() {
    require_usable_tmp_dir(m_options.tmp_dir, m_ini.data_directory);
    open_store();
    make_plan();
    m_document = {{"command", "restore"},
                  {"dry_run", m_options.dry_run},
                  {"store", printable_utf8(store_address(m_options.store))},
                  {"plan", plan_json(m_plan)},
                  {"attachment_objects", needed_objects_json(m_objects)}};
    return m_options.dry_run ? show_plan() : restore();
}

void RestoreRun::open_store() {
    m_server.store = m_in_place
                         ? open_store_for_notes(m_options.store, m_ini.server_name, m_not_owed)
                         : open_store_for_reading(m_options.store);
    m_server.use_sets(!m_options.to.empty());
}

void RestoreRun::make_plan() {
    RestoreRequest request;
    request.selection = {m_options.names, m_options.all, m_options.set, m_options.at};
    request.to = m_options.to;
    request.plain = m_options.plain;
    request.activate = m_options.activate;
    request.keep_replaced = m_options.keep_replaced;
    request.tmp_dir = m_options.tmp_dir;
    m_plan = make_restore_plan(*m_server.store, m_ini, request);
    print_warnings(m_plan.warnings);
    m_objects = objects_for(*m_server.store, m_ini, request, m_plan);
}

int RestoreRun::show_plan() {
    int code = code_of(m_plan);
    std::optional<LaterRecovery> later;
    try {
        later = plan_later_recovery(*m_server.store, m_ini, m_plan.items);
    } catch (const ClientError& failure) { // a restore does not need the logs
        print_warnings(
            {"which logs a recovery needs is not known: " + std::string(failure.what())});
    }
    m_document["exit_code"] = code;
    m_document["recovery_logs"] = later ? later_recovery_json(*later) : nlohmann::json();
    m_options.json ? print_json(m_document)
                   : print_output(plan_text(m_plan) + (later ? later_recovery_text(*later) : "") +
                                  needed_objects_text(m_objects));
    return code;
}

int RestoreRun::restore() {
    require_room(m_plan.room);
    OperationContext context = m_server.begin_operations();
    std::optional<OwedDatabases> owed;
    if (m_in_place && m_not_owed.empty())
        owed = read_owed(*m_server.store, m_not_owed);
    if (!m_not_owed.empty() && puts_databases_in_place(m_plan))
        print_warnings({not_owed_text(m_not_owed)});
    RestoreResult result = run_restore_operation(context, m_plan, owed ? &*owed : nullptr);
    print_warnings(result.warnings);
    if (m_options.verbose)
        tell_left_out();
    int code = exit_code_of(result);
    m_document["exit_code"] = code;
    m_document["result"] = restore_json(result);
    m_options.json ? print_json(m_document)
                   : print_report(restore_text(result) + taken_text(m_plan, result) +
                                      needed_objects_text(m_objects) + left_out_text(),
                                  code);
    return code;
}

void RestoreRun::tell_left_out() const {
    for (const PlannedItem& planned : m_plan.items)
        if (planned.action == RestoreAction::leave_out)
            print_message(fmt::format("left out: {}: {}", for_terminal(planned.item.path),
                                      for_terminal(planned.reason)));
}

std::string RestoreRun::left_out_text() const {
    auto left_out =
        std::count_if(m_plan.items.begin(), m_plan.items.end(), [](const PlannedItem& planned) {
            return planned.action == RestoreAction::leave_out;
        });
    return left_out > 0
               ? std::to_string(left_out) + " items left out: --dry-run tells which and why\n"
               : "";
}

int run_restore(const RestoreOptions& options) {
    install_interrupt_handlers();
    if (options.names.empty() && !options.all)
        throw ClientError(ExitCode::usage,
                          "restore needs to know what: name databases, or say "
                          "--all for the whole system",
                          "`qrtln show` lists what a set holds; --dry-run shows what would happen");
    return RestoreRun(options).run();
}

void add_restore(CLI::App& command, CommandRuns& runs) {
    auto& restore = runs.add(command, run_restore);
    add_server_options(command, restore);
    add_origin_options(command, restore);
    CLI::Option* restore_set =
        command.add_option("--set", restore.set,
                           "Just what this set holds: its name, the beginning of it, \"latest\"");
    command
        .add_option("--at", restore.at,
                    std::string("The newest up to this time (default: the newest): ") + time_help)
        ->type_name("TIME")
        ->excludes(restore_set);
    CLI::Option* restore_to =
        command
            .add_option("--to", restore.to,
                        "Write to this folder, each item below it with its whole path")
            ->type_name("DIR");
    command.add_flag("--plain", restore.plain, "Write straight into the folder, without the path")
        ->needs(restore_to);
    CLI::Option* activate =
        command
            .add_flag("--activate", restore.activate,
                      "Have the server put each database in the place of the live one")
            ->excludes(restore_to);
    command
        .add_flag("--keep-replaced", restore.keep_replaced,
                  "Keep each database and file that is replaced as NAME.replaced-TIME beside it")
        ->needs(activate);
    command.add_flag("--dry-run", restore.dry_run,
                     "Show what would be written where, and write nothing");
    CLI::Option* restore_names = command.add_option(
        "DATABASE", restore.names,
        "A database, a file or a folder of databases; relative names are below the data directory");
    command.add_flag("--all", restore.all, "The whole system")->excludes(restore_names);
    add_tmp_dir(command, restore.tmp_dir,
                "Where databases are placed first; not in the data directory");
    add_module_options(command, restore);
}

} // namespace

const Command restore_command = {"restore", restore_help, add_restore};

} // namespace qrtln
