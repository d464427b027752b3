// `qrtln documents`: deleted or changed documents come back from the store.

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/documents_text.h"
#include "client/commands/server.h"
#include "client/documents/lost_documents.h"
#include "client/documents/operation.h"
#include "client/module/temporary_directory.h"
#include "client/restore/operation.h"
#include "client/restore/selection.h"
#include "client/sets/manifest.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

constexpr const char* documents_help =
    R"(Bring deleted or changed documents back into a live database, from the newest set that has
the database. The set's copy is checked before the server hears of it; what came back is told
document by document.)";

struct DocumentsOptions : ServerOptions {
    bool changed = false; // else deleted
    std::string database;
    std::string since;
    std::string ids_file; // of changed: the note ids; "-" is standard input
    std::string set;      // "" for the newest
    std::string at;       // or a moment
    bool dry_run = false;
};

class DocumentsCommand {
  public:
    DocumentsCommand(const DocumentsOptions& options, DocumentRequest request)
        : m_options(options), m_server(options), m_ini(m_server.ini),
          m_request(std::move(request)) {}
    int run();

  private:
    void choose_database();
    void open_store();
    void look_at_lost();
    void note_lost(const std::vector<NoteId>& ids, const PointInTime& before);
    void strike_returned(const DocumentsResult& result);
    std::string bring_back_command(const LostDocuments& lost) const;
    std::string bring_back() const;
    std::string advice(const DocumentsResult& result) const;
    void check_live() const;
    void warn() const;
    int report(const DocumentsResult& result) const;

    const DocumentsOptions& m_options;
    CommandServer m_server;
    const NotesIni& m_ini;
    DocumentRequest m_request;
    std::string m_set;
    std::int64_t m_set_started = 0;
    std::string m_not_noted; // why nothing can be written to the store
    std::optional<LostDocumentsFile> m_lost_file;
    std::optional<LostDocuments> m_lost; // of this database
};

int DocumentsCommand::run() {
    require_usable_tmp_dir(m_options.tmp_dir, m_ini.data_directory);
    open_store();
    m_server.use_sets();
    choose_database();
    check_live();
    if (!m_options.dry_run)
        look_at_lost();
    warn();
    OperationContext context = m_server.begin_operations();
    if (!m_options.dry_run) {
        DocumentsResult result = restore_documents(context, m_request);
        strike_returned(result);
        return report(result);
    }
    OwedDatabases owed(owed_file_of(*m_server.store));
    return report(find_documents(context, owed, m_request));
}

// A dry run writes down which database the server takes for backed up, a restore of changed ones
// which documents it deletes.
void DocumentsCommand::open_store() {
    if (m_options.dry_run)
        m_server.store = open_directory_store(m_options.store, StoreAccess::change);
    else if (m_options.changed)
        m_server.store = open_store_for_notes(m_options.store, m_ini.server_name, m_not_noted);
    else
        m_server.store = open_store_for_reading(m_options.store);
}

// What an earlier restore deleted and did not replace comes back first: each further one may delete
// another document.
void DocumentsCommand::look_at_lost() {
    try {
        m_lost_file.emplace(*m_server.store);
    } catch (const ClientError& failure) {
        if (m_options.changed)
            throw;
        print_warnings({failure.what()}); // the way back stays open
        return;
    }
    m_lost = m_lost_file->of(m_ini.data_directory, m_request.item.path);
    if (m_options.changed && m_lost) {
        std::string ids;
        for (std::size_t i = 0; i < m_lost->ids.size(); ++i)
            ids += (i == 0 ? "" : ", ") + note_id_text(m_lost->ids[i]);
        throw ClientError(ExitCode::failed,
                          fmt::format("an earlier restore deleted documents of {}, or ended before "
                                      "it told so, and they are not back: {}: nothing was done",
                                      for_terminal(m_request.item.path), ids),
                          fmt::format("bring them back first: {}; to give them up, move "
                                      "lost_documents.json in the store's folder runtime away",
                                      bring_back_command(*m_lost)));
    }
    if (m_lost) // it may be struck out
        m_server.store = open_store_for_notes(m_options.store, m_ini.server_name, m_not_noted);
    if (m_options.changed && !m_not_noted.empty())
        print_warnings(
            {"which documents are about to be deleted cannot be written down: " + m_not_noted});
    m_request.note_lost = [this](const std::vector<NoteId>& ids, const PointInTime& before) {
        note_lost(ids, before);
    };
}

void DocumentsCommand::note_lost(const std::vector<NoteId>& ids, const PointInTime& before) {
    m_lost = LostDocuments{m_ini.data_directory, m_request.item.path, m_set, before.time, ids};
    if (m_not_noted.empty())
        m_lost_file->put(*m_lost);
}

// What came back need not be noted any longer. When this very set was searched to its end, what was
// not found is not deleted.
void DocumentsCommand::strike_returned(const DocumentsResult& result) {
    if (m_options.changed || !m_lost)
        return;
    bool searched =
        exit_code_of(result) == 0 && m_set == m_lost->set && m_request.since.time <= m_lost->since;
    std::erase_if(m_lost->ids, [&](NoteId id) {
        return searched || std::any_of(result.documents.begin(), result.documents.end(),
                                       [&](const DocumentResult& document) {
                                           return document.id == id && came_back(document);
                                       });
    });
    try {
        if (!m_not_noted.empty())
            throw ClientError(ExitCode::failed, m_not_noted);
        m_lost_file->put(*m_lost);
    } catch (const ClientError& failure) {
        print_warnings(
            {"that documents are back cannot be written down: " + std::string(failure.what())});
    }
}

std::string DocumentsCommand::bring_back_command(const LostDocuments& lost) const {
    return fmt::format("qrtln documents deleted --since {} --set {} --notes-ini {} --store {} {}",
                       utc_time(lost.since), lost.set, for_terminal(m_options.notes_ini),
                       for_terminal(m_options.store), for_terminal(m_request.item.path));
}

void DocumentsCommand::choose_database() {
    SelectionRequest wanted;
    wanted.names = {m_options.database};
    wanted.set = m_options.set;
    wanted.at = m_options.at;
    RestoreSelection selection = select_for_restore(*m_server.store, m_ini.sets, wanted);
    print_warnings(selection.warnings);
    auto found = std::find_if(selection.items.begin(), selection.items.end(),
                              [](const SelectedItem& selected) {
                                  return selected.named && selected.item.kind == ItemKind::database;
                              });
    if (found == selection.items.end())
        throw ClientError(
            ExitCode::failed,
            fmt::format("'{}' is no database in the sets: documents come back into one database",
                        for_terminal(m_options.database)));
    m_request.item = found->item;
    m_set = found->set;
    m_set_started = m_request.item.copied != 0 ? m_request.item.copied
                                               : parse_moment(m_set.substr(0, 16), "set").time;
    const std::string& path = m_request.item.path;
    if (!is_below(path, m_ini.data_directory))
        throw ClientError(ExitCode::failed,
                          fmt::format("{} lies outside the data directory {}", for_terminal(path),
                                      for_terminal(m_ini.data_directory)),
                          "restore it to another folder with `qrtln restore --to`");
}

void DocumentsCommand::check_live() const {
    const std::string& path = m_request.item.path;
    struct stat status {};
    int error = ::stat(path.c_str(), &status) != 0 ? errno : S_ISREG(status.st_mode) ? 0 : EINVAL;
    if (error != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("the live database {} cannot take documents: {}",
                                      for_terminal(path),
                                      error == EINVAL ? "it is no file" : system_error_text(error)),
                          "a lost database comes back whole: `qrtln restore --activate`");
}

void DocumentsCommand::warn() const {
    if (m_request.since.cut)
        print_message("the server takes minutes: since " + utc_time(m_request.since.time));
    if (m_set_started >= m_request.since.time + 60) // not for the rounding alone
        print_message(fmt::format(
            "warning: the set {} was taken after --since: {}; --at takes an older set", m_set,
            m_options.changed ? "what was changed before that, comes back as changed"
                              : "what was deleted before that, is not in it"));
}

// The command that brings back what is deleted now; empty: nothing is.
std::string DocumentsCommand::bring_back() const {
    return m_options.changed && m_lost && !m_lost->ids.empty() ? bring_back_command(*m_lost) : "";
}

int DocumentsCommand::report(const DocumentsResult& result) const {
    print_warnings(result.warnings);
    if (std::string text = advice(result); !text.empty())
        print_message(text);
    const DocumentsTold told = {m_options.changed,
                                m_options.dry_run,
                                store_address(m_options.store),
                                m_request.item.path,
                                m_set,
                                m_request.since.time,
                                bring_back()};
    m_options.json ? print_json(documents_json(result, told))
                   : print_report(documents_text(result, told), exit_code_of(result));
    if (result.failure)
        print_error(result.failure->what(),
                    told.bring_back.empty() ? "run the same command again for the rest"
                                            : "bring back what may be deleted: " + told.bring_back);
    return exit_code_of(result);
}

// What the server's end at a document means for the others, which it tells nothing about.
std::string DocumentsCommand::advice(const DocumentsResult& result) const {
    if (std::string command = bring_back(); !command.empty())
        return "do not run the same command again: it would delete another document. Mend what is "
               "told above, then bring back what is deleted: " +
               command;
    if (!result.ended_at_failure)
        return {};
    if (m_options.changed)
        return "the server ended the restore at the document that failed: when that is mended, or "
               "without it in the list, the same command reaches those after it";
    return "the server ended the restore at the document that failed, which the live database does "
           "not take: those of the set with higher note ids are not reached. When that is mended "
           "the same command reaches them; until then a later --since reaches those that were "
           "deleted after it, and `qrtln restore --to` gives the set's whole database in another "
           "folder";
}

int run_documents(const DocumentsOptions& options) {
    install_interrupt_handlers();
    DocumentRequest request;
    request.kind = options.changed ? DocumentKind::changed : DocumentKind::deleted;
    request.since = parse_since(options.since, std::time(nullptr));
    if (options.changed)
        request.ids = read_note_ids(options.ids_file);
    return DocumentsCommand(options, std::move(request)).run();
}

void add_documents_options(CLI::App& command, DocumentsOptions& documents) {
    add_server_options(command, documents);
    add_origin_options(command, documents);
    command
        .add_option("--since", documents.since,
                    std::string("Deleted or changed then or later, to the minute: ") + time_help)
        ->type_name("TIME")
        ->required();
    CLI::Option* set = command.add_option(
        "--set", documents.set, "From this set: its name, the beginning of it, \"latest\"");
    command.add_option("--at", documents.at, "From the newest set up to this time, as in --since")
        ->type_name("TIME")
        ->excludes(set);
    command.add_flag("--dry-run", documents.dry_run,
                     "List the documents that would come back, with the times of their change, and "
                     "leave the database as it is; takes a copy of it, as a backup does");
    add_tmp_dir(command, documents.tmp_dir,
                "Where the set's copy is placed; not in the data directory");
    command
        .add_option("DATABASE", documents.database,
                    "The database; a relative name is below the data directory")
        ->required();
    add_module_options(command, documents);
}

void add_documents(CLI::App& command, CommandRuns& runs) {
    command.require_subcommand(1);
    CLI::App& deleted = *command.add_subcommand(
        "deleted",
        "Bring back what was deleted since TIME, and mark it unread for the server's user.");
    add_documents_options(deleted, runs.add(deleted, run_documents));
    CLI::App& changed = *command.add_subcommand(
        "changed", "Replace the listed documents that changed since TIME by the set's versions.");
    DocumentsOptions& options = runs.add(changed, run_documents);
    options.changed = true;
    changed
        .add_option("--ids", options.ids_file,
                    "The note ids, one a line, decimal or as 0x8F6 or NT000008F6; - reads standard "
                    "input")
        ->type_name("FILE")
        ->required();
    add_documents_options(changed, options);
}

} // namespace

const Command documents_command = {"documents", documents_help, add_documents};

} // namespace qrtln
