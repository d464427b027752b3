// `qrtln documents`: deleted or changed documents come back from the store.

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/commands/server.h"
#include "client/documents/lost_documents.h"
#include "client/documents/operation.h"
#include "client/domino/notes_ini.h"
#include "client/module/temporary_directory.h"
#include "client/restore/operation.h"
#include "client/restore/selection.h"
#include "client/sets/manifest.h"
#include "client/store/canonical_json.h"

#include <algorithm>
#include <array>
#include <sys/stat.h>

namespace qrtln {

namespace {

struct OutcomeText {
    DocumentOutcome outcome;
    const char* name; // in JSON
    const char* text;
    bool failed; // counts as failed
};

constexpr std::array outcome_texts = {
    OutcomeText{DocumentOutcome::candidate, "candidate", "would come back", false},
    OutcomeText{DocumentOutcome::back_unread, "back_unread", "brought back, marked unread", false},
    OutcomeText{DocumentOutcome::back, "back", "brought back, but not marked unread", false},
    OutcomeText{DocumentOutcome::replaced, "replaced", "replaced by the set's version", false},
    OutcomeText{DocumentOutcome::unchanged, "unchanged",
                "left alone: not changed since then, or deleted", false},
    OutcomeText{DocumentOutcome::missing, "not_in_set", "not in the set", true},
    OutcomeText{DocumentOutcome::failed, "failed", "failed, left as it was", true},
    OutcomeText{DocumentOutcome::lost, "lost",
                "DELETED, and its copy could not be put in its place", true},
    OutcomeText{DocumentOutcome::not_reached, "not_reached", "not reached, left as it was", true},
    OutcomeText{DocumentOutcome::unknown, "unknown", "unknown: the server's library died at it",
                true},
};

const OutcomeText& text_of(DocumentOutcome outcome) {
    const auto* found =
        std::find_if(outcome_texts.begin(), outcome_texts.end(),
                     [&](const OutcomeText& entry) { return entry.outcome == outcome; });
    return found == outcome_texts.end() ? outcome_texts.back() : *found;
}

bool came_back(const DocumentResult& document) {
    return document.outcome == DocumentOutcome::back_unread ||
           document.outcome == DocumentOutcome::back ||
           document.outcome == DocumentOutcome::replaced ||
           document.outcome == DocumentOutcome::candidate;
}

std::string time_range(const DocumentResult& document) {
    if (document.outcome != DocumentOutcome::candidate)
        return "";
    std::string text = utc_time(document.earliest);
    if (document.latest - document.earliest > 60)
        text += " to " + utc_time(document.latest);
    return text;
}

class DocumentsCommand {
  public:
    explicit DocumentsCommand(const DocumentsOptions& options)
        : m_options(options),
          m_kind(options.changed ? DocumentKind::changed : DocumentKind::deleted) {}
    int run();

  private:
    void choose_database();
    void open_store();
    void look_at_lost();
    void note_lost(const std::vector<NoteId>& ids, const PointInTime& before);
    void strike_returned(const DocumentsResult& result);
    std::string bring_back_command(const LostDocuments& lost) const;
    std::string advice(const DocumentsResult& result) const;
    void check_live() const;
    void warn() const;
    int report(const DocumentsResult& result) const;
    int code_of(const DocumentsResult& result) const;
    std::string text(const DocumentsResult& result) const;
    nlohmann::json json(const DocumentsResult& result, int code) const;
    const char* kind() const { return m_options.changed ? "changed" : "deleted"; }

    const DocumentsOptions& m_options;
    DocumentKind m_kind;
    NotesIni m_ini;
    std::unique_ptr<Store> m_store;
    DocumentRequest m_request;
    std::string m_set;
    std::int64_t m_set_started = 0;
    std::string m_not_noted; // why nothing can be written to the store
    std::optional<LostDocumentsFile> m_lost_file;
    std::optional<LostDocuments> m_lost; // of this database
};

int DocumentsCommand::run() {
    m_request.kind = m_kind;
    m_request.since = parse_since(m_options.since, std::time(nullptr));
    if (m_options.changed)
        m_request.ids = read_note_ids(m_options.ids_file);
    m_ini = load_server(m_options);
    require_usable_tmp_dir(m_options.tmp_dir, m_ini.data_directory);
    open_store();
    use_server(*m_store, m_ini, m_options);
    choose_database();
    check_live();
    if (!m_options.dry_run)
        look_at_lost();
    warn();
    FileDescriptor trace = open_trace_file(m_options.trace_file);
    OperationContext context = operation_context(m_ini, *m_store, m_options, trace.get());
    if (!m_options.dry_run) {
        DocumentsResult result = restore_documents(context, m_request);
        strike_returned(result);
        return report(result);
    }
    OwedDatabases owed(owed_file_of(*m_store));
    return report(find_documents(context, owed, m_request));
}

// A dry run writes down which database the server takes for backed up, a restore of changed ones
// which documents it deletes.
void DocumentsCommand::open_store() {
    if (m_options.dry_run)
        m_store = open_directory_store(m_options.store, StoreAccess::change);
    else if (m_options.changed)
        m_store = open_store_for_notes(m_options.store, m_ini.server_name, m_not_noted);
    else
        m_store = open_directory_store(m_options.store, StoreAccess::read);
}

// What an earlier restore deleted and did not replace comes back first: each further one may delete
// another document.
void DocumentsCommand::look_at_lost() {
    try {
        m_lost_file.emplace(*m_store);
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
                          "an earlier restore deleted documents of " +
                              for_terminal(m_request.item.path) +
                              ", or ended before it told so, and they are not back: " + ids +
                              ": nothing was done",
                          "bring them back first: " + bring_back_command(*m_lost) +
                              "; to give them up, move lost_documents.json in the store's folder "
                              "runtime away");
    }
    if (m_lost) // it may be struck out
        m_store = open_store_for_notes(m_options.store, m_ini.server_name, m_not_noted);
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
        code_of(result) == 0 && m_set == m_lost->set && m_request.since.time <= m_lost->since;
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
    return "qrtln documents deleted --since " + utc_time(lost.since) + " --set " + lost.set +
           " --notes-ini " + for_terminal(m_options.notes_ini) + " --store " +
           for_terminal(m_options.store) + " " + for_terminal(m_request.item.path);
}

void DocumentsCommand::choose_database() {
    SelectionRequest wanted;
    wanted.names = {m_options.database};
    wanted.set = m_options.set;
    wanted.at = m_options.at;
    RestoreSelection selection = select_for_restore(*m_store, m_ini.sets, wanted);
    print_warnings(selection.warnings);
    auto found = std::find_if(selection.items.begin(), selection.items.end(),
                              [](const SelectedItem& selected) {
                                  return selected.named && selected.item.kind == ItemKind::database;
                              });
    if (found == selection.items.end())
        throw ClientError(ExitCode::failed, "'" + for_terminal(m_options.database) +
                                                "' is no database in the sets: documents come "
                                                "back into one database");
    m_request.item = found->item;
    m_set = found->set;
    m_set_started = m_request.item.copied != 0 ? m_request.item.copied
                                               : parse_moment(m_set.substr(0, 16), "set").time;
    const std::string& path = m_request.item.path;
    if (!is_below(path, m_ini.data_directory))
        throw ClientError(ExitCode::failed,
                          for_terminal(path) + " lies outside the data directory " +
                              for_terminal(m_ini.data_directory),
                          "restore it to another folder with `qrtln restore --to`");
}

void DocumentsCommand::check_live() const {
    const std::string& path = m_request.item.path;
    struct stat status {};
    int error = ::stat(path.c_str(), &status) != 0 ? errno : S_ISREG(status.st_mode) ? 0 : EINVAL;
    if (error != 0)
        throw ClientError(ExitCode::failed,
                          "the live database " + for_terminal(path) + " cannot take documents: " +
                              (error == EINVAL ? "it is no file" : system_error_text(error)),
                          "a lost database comes back whole: `qrtln restore --activate`");
}

void DocumentsCommand::warn() const {
    if (m_request.since.cut)
        print_message("the server takes minutes: since " + utc_time(m_request.since.time));
    if (m_set_started >= m_request.since.time + 60) // not for the rounding alone
        print_message("warning: the set " + m_set + " was taken after --since: " +
                      (m_options.changed ? "what was changed before that, comes back as changed"
                                         : "what was deleted before that, is not in it") +
                      "; --at takes an older set");
}

int DocumentsCommand::code_of(const DocumentsResult& result) const {
    if (result.failure)
        return result.failure->exit_code();
    bool failed = std::any_of(
        result.documents.begin(), result.documents.end(),
        [](const DocumentResult& document) { return text_of(document.outcome).failed; });
    return static_cast<int>(failed ? ExitCode::items_failed : ExitCode::complete);
}

int DocumentsCommand::report(const DocumentsResult& result) const {
    print_warnings(result.warnings);
    if (std::string text = advice(result); !text.empty())
        print_message(text);
    int code = code_of(result);
    m_options.json ? print_json(json(result, code)) : print_output(text(result));
    if (result.failure)
        print_error(result.failure->what(),
                    m_options.changed && m_lost && !m_lost->ids.empty()
                        ? "bring back what may be deleted: " + bring_back_command(*m_lost)
                        : "run the same command again for the rest");
    return code;
}

// What the server's end at a document means for the others, which it tells nothing about.
std::string DocumentsCommand::advice(const DocumentsResult& result) const {
    if (m_options.changed && m_lost && !m_lost->ids.empty())
        return "do not run the same command again: it would delete another document. Mend what is "
               "told above, then bring back what is deleted: " +
               bring_back_command(*m_lost);
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

std::string DocumentsCommand::text(const DocumentsResult& result) const {
    std::string what = for_terminal(m_request.item.path) + ", " + kind() + " since " +
                       utc_time(m_request.since.time) + ", from the set " + m_set;
    auto back = std::count_if(result.documents.begin(), result.documents.end(), came_back);
    std::string text;
    if (!result.documents.empty()) {
        std::vector<std::string> headings = {"NOTE ", "HEXADECIMAL", "RESULT"};
        if (m_options.dry_run)
            headings.insert(headings.begin() + 2, m_options.changed ? "CHANGED" : "DELETED");
        Table table(headings);
        for (const DocumentResult& document : result.documents) {
            std::string outcome = text_of(document.outcome).text;
            if (!document.reason.empty())
                outcome += ": " + for_terminal(document.reason);
            std::vector<std::string> row = {std::to_string(document.id), note_id_text(document.id),
                                            outcome};
            if (m_options.dry_run)
                row.insert(row.begin() + 2, time_range(document));
            table.add(std::move(row));
        }
        text = table.text();
    }
    if (result.documents.empty())
        return "nothing to do: the set has no document of " + what + "\n";
    return text + std::to_string(back) + " of " + std::to_string(result.documents.size()) +
           " documents " + (m_options.dry_run ? "would come back" : "came back") + ": " + what +
           "\n";
}

nlohmann::json DocumentsCommand::json(const DocumentsResult& result, int code) const {
    nlohmann::json documents = nlohmann::json::array();
    for (const DocumentResult& document : result.documents) {
        nlohmann::json entry = {{"id", document.id},
                                {"hexadecimal", note_id_text(document.id)},
                                {"outcome", text_of(document.outcome).name},
                                {"text", text_of(document.outcome).text}};
        if (!document.reason.empty())
            entry["reason"] = printable_utf8(document.reason);
        if (document.outcome == DocumentOutcome::candidate) {
            entry["earliest"] = utc_time(document.earliest);
            entry["before"] = utc_time(document.latest);
        }
        documents.push_back(std::move(entry));
    }
    nlohmann::json document = {{"command", "documents"},
                               {"kind", kind()},
                               {"dry_run", m_options.dry_run},
                               {"store", printable_utf8(absolute_path(m_options.store))},
                               {"database", printable_utf8(m_request.item.path)},
                               {"set", m_set},
                               {"since", utc_time(m_request.since.time)},
                               {"documents", documents},
                               {"warnings", printable_list(result.warnings)},
                               {"operations", result.operations},
                               {"exit_code", code}};
    if (result.failure)
        document["error"] = printable_utf8(result.failure->what());
    if (m_options.changed && m_lost && !m_lost->ids.empty())
        document["bring_back"] = printable_utf8(bring_back_command(*m_lost));
    return document;
}

} // namespace

int run_documents(const DocumentsOptions& options) {
    install_interrupt_handlers();
    return DocumentsCommand(options).run();
}

} // namespace qrtln
