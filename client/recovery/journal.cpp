#include "client/recovery/journal.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/permission.h"
#include "client/base/text.h"
#include "client/store/canonical_json.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

using nlohmann::json;

constexpr int journal_format = 1;
constexpr std::size_t maximal_journal = std::size_t{1} << 30;

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

json state_to_json(const FileState& state) {
    return {{"there", state.there},
            {"inode", state.inode},
            {"size", state.size},
            {"mtime_ns", state.mtime_ns}};
}

FileState state_from_json(const json& entry) {
    return {entry.at("there").get<bool>(), entry.at("inode").get<std::uint64_t>(),
            entry.at("size").get<std::int64_t>(), entry.at("mtime_ns").get<std::int64_t>()};
}

json to_json(const RecoveryJournal& journal) {
    json document = {{"format", journal_format},
                     {"all", journal.all},
                     {"new_dbiid", journal.new_dbiid},
                     {"replace_live", journal.replace_live},
                     {"logs_lost", journal.logs_lost},
                     {"recovering", journal.recovering},
                     {"log_folder_lost", journal.log_folder_lost},
                     {"names", paths_to_json(journal.names)},
                     {"extents", json::array()},
                     {"done", json::array()},
                     {"databases", json::array()}};
    put_bytes(document, "data_directory", journal.data_directory);
    put_bytes(document, "into", journal.into);
    put_bytes(document, "moved", journal.moved);
    document["from_server"] = printable_utf8(journal.from_server);
    put_bytes(document, "pending_folder", journal.pending_folder);
    if (journal.to)
        document["to"] = *journal.to;
    if (journal.logs_end)
        document["logs_end"] = *journal.logs_end;
    for (const PutBackLog& log : journal.extents) {
        json& entry = document["extents"].emplace_back(json::object());
        put_bytes(entry, "path", log.path);
        entry["object"] = log.object;
    }
    for (const DoneDatabase& database : journal.done) {
        json& entry = document["done"].emplace_back(json::object());
        put_bytes(entry, "path", database.path);
        put_bytes(entry, "shortfall", database.shortfall);
        entry["set"] = database.set;
    }
    for (const PendingDatabase& database : journal.databases) {
        json& entry = document["databases"].emplace_back(json::object());
        put_bytes(entry, "path", database.path);
        put_bytes(entry, "copy", database.copy);
        put_bytes(entry, "link", database.link);
        if (database.before)
            entry["before"] = state_to_json(*database.before);
        entry["lost"] = database.lost;
        entry["owed"] = database.owed;
        put_bytes(entry, "doubt", database.doubt);
        entry["set"] = database.set;
    }
    return document;
}

// Fields that came later may be absent: an earlier release began the recovery.
RecoveryJournal journal_from_json(const json& document) {
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
    journal.replace_live = document.value("replace_live", false);
    journal.logs_lost = document.value("logs_lost", false);
    journal.from_server = document.value("from_server", "");
    journal.moved = document.contains("moved") ? get_bytes(document, "moved") : "";
    journal.pending_folder = get_bytes(document, "pending_folder");
    journal.recovering = document.at("recovering").get<bool>();
    journal.log_folder_lost = document.at("log_folder_lost").get<bool>();
    if (auto end = document.find("logs_end"); end != document.end())
        journal.logs_end = end->get<std::int64_t>();
    for (const json& entry : document.at("extents"))
        journal.extents.push_back({get_bytes(entry, "path"), entry.value("object", "")});
    for (const json& entry : document.value("done", json::array()))
        journal.done.push_back(
            {get_bytes(entry, "path"), get_bytes(entry, "shortfall"), entry.value("set", "")});
    for (const json& entry : document.at("databases")) {
        PendingDatabase& database = journal.databases.emplace_back();
        database.path = get_bytes(entry, "path");
        database.copy = get_bytes(entry, "copy");
        if (entry.contains("link"))
            database.link = get_bytes(entry, "link");
        if (auto before = entry.find("before"); before != entry.end())
            database.before = state_from_json(*before);
        database.lost = entry.at("lost").get<bool>();
        database.owed = entry.value("owed", false);
        if (entry.contains("doubt"))
            database.doubt = get_bytes(entry, "doubt");
        database.set = entry.value("set", "");
    }
    return journal;
}

template <typename Entry>
const Entry* find_entry(const std::vector<Entry>& entries, const std::string& path) {
    auto found = std::find_if(entries.begin(), entries.end(),
                              [&](const Entry& entry) { return entry.path == path; });
    return found == entries.end() ? nullptr : &*found;
}

} // namespace

FileState file_state(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0)
        return {};
    return {true, status.st_ino, status.st_size, modification_time_ns(status)};
}

const PendingDatabase* RecoveryJournal::entry_of(const std::string& path) const {
    return find_entry(databases, path);
}

const DoneDatabase* RecoveryJournal::done_of(const std::string& path) const {
    return find_entry(done, path);
}

DatabaseState RecoveryJournal::state_of(const std::string& path) const {
    const bool server_was_told = recovering && into.empty(); // before that it put nothing in place
    if (server_was_told && done_of(path) != nullptr)
        return DatabaseState::in_place;
    const PendingDatabase* pending = entry_of(path);
    if (pending == nullptr)
        return DatabaseState::not_listed;
    if (pending->copy.empty())
        return DatabaseState::to_restore;
    if (exists(pending->copy))
        return DatabaseState::copy_waits;
    if (!server_was_told)
        return DatabaseState::to_restore;
    // Somebody who clears the folder takes the link, too; and what is as it was before was not
    // written by the server.
    bool cleaned_away = !pending->link.empty() && !exists(pending->link);
    bool changed = pending->before && file_state(path) != *pending->before;
    return cleaned_away || !changed ? DatabaseState::copy_lost : DatabaseState::in_place;
}

std::optional<RecoveryJournal> RecoveryJournalFile::read() const {
    std::optional<std::string> content = read_small_file(AT_FDCWD, m_file, maximal_journal);
    if (!content && errno == ENOENT)
        return std::nullopt;
    int error = content ? 0 : errno;
    throw_if_no_permission("read the journal of the recovery", m_file, error);
    std::string problem = content ? "" : "cannot be read: " + system_error_text(error);
    std::optional<json> document;
    if (content)
        document = from_canonical(*content, problem);
    try {
        if (document)
            return journal_from_json(*document);
    } catch (const std::exception& failure) {
        problem = "does not read as one: " + printable_utf8(failure.what());
    }
    throw ClientError(
        ExitCode::failed,
        fmt::format("the journal of an unfinished recovery, {}, {}", for_terminal(m_file), problem),
        "move it away and run the recovery again; restored copies that waited are in "
        "the folder for temporary files, in qrtln-recovery_*");
}

void RecoveryJournalFile::write(const RecoveryJournal& journal) const {
    int error = replace_file(m_file, to_canonical(to_json(journal)));
    throw_if_no_permission("write the journal of the recovery", m_file, error, true);
    if (error != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot write the journal of the recovery, {}: {}",
                                      for_terminal(m_file), system_error_text(error)),
                          error == ENOSPC || error == EDQUOT ? "make room on its file system" : "");
}

void RecoveryJournalFile::remove() const {
    int error = ::unlink(m_file.c_str()) != 0 && errno != ENOENT ? errno : 0;
    if (error == 0)
        error = flush_directory(AT_FDCWD, m_file.substr(0, m_file.rfind('/')));
    throw_if_no_permission("remove the journal of the recovery", m_file, error, true);
    if (error != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot remove the journal of the recovery, {}: {}",
                                      for_terminal(m_file), system_error_text(error)));
}

} // namespace qrtln
