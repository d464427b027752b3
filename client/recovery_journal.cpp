#include "client/recovery_journal.h"

#include "client/error.h"
#include "client/file_io.h"
#include "client/recovery_logs.h"
#include "client/store/canonical_json.h"
#include "client/temporary_directory.h"
#include "client/text.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>

namespace qrtln {

namespace {

using nlohmann::json;

constexpr int journal_format = 1;
constexpr std::size_t maximal_journal = std::size_t{1} << 30;
constexpr std::string_view folder_prefix = "qrtln-recovery_"; // "-R" would be an option of INFO

json paths_to_json(const std::vector<std::string>& paths) {
    json array = json::array();
    for (const std::string& path : paths)
        put_bytes(array.emplace_back(json::object()), "path", path);
    return array;
}

std::vector<std::string> paths_from_json(const json& array) {
    std::vector<std::string> paths;
    for (const json& entry : array)
        paths.push_back(get_bytes(entry, "path"));
    return paths;
}

json to_json(const RecoveryJournal& journal) {
    json document = {{"format", journal_format},
                     {"all", journal.all},
                     {"new_dbiid", journal.new_dbiid},
                     {"recovering", journal.recovering},
                     {"log_folder_lost", journal.log_folder_lost},
                     {"names", paths_to_json(journal.names)},
                     {"extents", paths_to_json(journal.extents)},
                     {"databases", json::array()}};
    put_bytes(document, "data_directory", journal.data_directory);
    put_bytes(document, "into", journal.into);
    put_bytes(document, "pending_folder", journal.pending_folder);
    if (journal.to)
        document["to"] = *journal.to;
    if (journal.logs_end)
        document["logs_end"] = *journal.logs_end;
    for (const PendingDatabase& database : journal.databases) {
        json& entry = document["databases"].emplace_back(json::object());
        put_bytes(entry, "path", database.path);
        put_bytes(entry, "copy", database.copy);
        entry["lost"] = database.lost;
    }
    return document;
}

RecoveryJournal from_json(const json& document) {
    RecoveryJournal journal;
    if (document.at("format").get<int>() != journal_format)
        throw std::runtime_error("an unknown format");
    journal.data_directory = get_bytes(document, "data_directory");
    journal.names = paths_from_json(document.at("names"));
    journal.all = document.at("all").get<bool>();
    if (auto to = document.find("to"); to != document.end())
        journal.to = to->get<std::int64_t>();
    journal.into = get_bytes(document, "into");
    journal.new_dbiid = document.at("new_dbiid").get<bool>();
    journal.pending_folder = get_bytes(document, "pending_folder");
    journal.recovering = document.at("recovering").get<bool>();
    journal.log_folder_lost = document.at("log_folder_lost").get<bool>();
    if (auto end = document.find("logs_end"); end != document.end())
        journal.logs_end = end->get<std::int64_t>();
    for (const json& entry : document.at("databases"))
        journal.databases.push_back(
            {get_bytes(entry, "path"), get_bytes(entry, "copy"), entry.at("lost").get<bool>()});
    journal.extents = paths_from_json(document.at("extents"));
    return journal;
}

} // namespace

const PendingDatabase* RecoveryJournal::entry_of(const std::string& path) const {
    auto found = std::find_if(databases.begin(), databases.end(),
                              [&](const PendingDatabase& entry) { return entry.path == path; });
    return found == databases.end() ? nullptr : &*found;
}

bool RecoveryJournal::was_put_in_place(const std::string& path) const {
    if (!into.empty() || !recovering)
        return false;
    const PendingDatabase* pending = entry_of(path);
    if (pending == nullptr)
        return true; // struck out
    // A copy that went with its whole folder was taken away by somebody.
    return !pending->copy.empty() && !exists(pending->copy) && exists(pending_folder);
}

std::optional<RecoveryJournal> RecoveryJournalFile::read() const {
    std::optional<std::string> content = read_small_file(AT_FDCWD, m_file, maximal_journal);
    if (!content && errno == ENOENT)
        return std::nullopt;
    std::string problem = content ? "" : "cannot be read: " + system_error_text(errno);
    std::optional<json> document;
    if (content)
        document = from_canonical(*content, problem);
    try {
        if (document)
            return from_json(*document);
    } catch (const std::exception& failure) {
        problem = "does not read as one: " + printable_utf8(failure.what());
    }
    throw ClientError(ExitCode::failed,
                      "the journal of an unfinished recovery, " + for_terminal(m_file) + ", " +
                          problem,
                      "move it away and run the recovery again; restored copies that waited are in "
                      "the folder for temporary files, in qrtln-recovery_*");
}

void RecoveryJournalFile::write(const RecoveryJournal& journal) const {
    if (int error = replace_file(m_file, to_canonical(to_json(journal))); error != 0)
        throw ClientError(ExitCode::failed,
                          "cannot write the journal of the recovery, " + for_terminal(m_file) +
                              ": " + system_error_text(error),
                          error == ENOSPC || error == EDQUOT
                              ? "make room on the file system of the store"
                              : "the store must be writable by this user");
}

void RecoveryJournalFile::remove() const {
    int error = ::unlink(m_file.c_str()) != 0 && errno != ENOENT ? errno : 0;
    if (error == 0)
        error = flush_directory(AT_FDCWD, m_file.substr(0, m_file.rfind('/')));
    if (error != 0)
        throw ClientError(ExitCode::failed, "cannot remove the journal of the recovery, " +
                                                for_terminal(m_file) + ": " +
                                                system_error_text(error));
}

std::string make_pending_folder(const std::string& tmp_dir, const std::string& data_directory) {
    return make_folder_for_copies(tmp_dir, data_directory, std::string(folder_prefix));
}

std::string make_folder_for_proof(const std::string& tmp_dir, const std::string& data_directory) {
    return make_folder_for_copies(tmp_dir, data_directory, std::string(folder_prefix) + "proof_");
}

std::vector<std::string> abandon_recovery(const RecoveryJournal& journal) {
    std::vector<std::string> warnings;
    // Whatever the journal says, only what a recovery makes is removed.
    for (const std::string& extent : journal.extents)
        if (log_number_of(name_of(extent)) && ::unlink(extent.c_str()) != 0 && errno != ENOENT)
            warnings.push_back("cannot remove the restored transaction log " + extent + ": " +
                               system_error_text(errno));
    const std::string& folder = journal.pending_folder;
    if (name_of(folder).starts_with(folder_prefix) && exists(folder))
        if (int error = remove_tree(AT_FDCWD, folder); error != 0)
            warnings.push_back("cannot remove the folder of restored copies " + folder + ": " +
                               system_error_text(error));
    return warnings;
}

} // namespace qrtln
