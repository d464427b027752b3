#include "client/backup/passed_over.h"

#include "client/backup/own_notes_ini.h"
#include "client/base/paths.h"
#include "client/domino/database_link.h"
#include "client/domino/database_names.h"
#include "client/domino/original.h"

#include <cerrno>
#include <fmt/format.h>
#include <sys/stat.h>
#include <utility>

namespace qrtln {

PassedOver::PassedOver(BackupRun& run, ContentReader& reader)
    : m_run(run), m_reader(reader), m_yielded(run.request.arguments.size(), false) {
    for (std::size_t i = 0; i < run.request.arguments.size(); ++i)
        m_argument_numbers.emplace(run.request.arguments[i].path, i);
}

// Where the module chooses, an item that it could not decide about never comes: it has failed. At
// full level it comes all the same, and the line is about the item that was just handed out.
void PassedOver::note_unchecked(const std::string& handed_out) {
    m_run.told.note_unput_question();
    for (UncheckedItem& unchecked : std::exchange(m_run.told.unchecked, {})) {
        if (!m_run.selects_changes()) {
            if (!handed_out.empty())
                m_warnings.push_back(unchecked.problem +
                                     "; it is stored, but the index of databases has no entry "
                                     "for it, and a differential backup will fail on it");
            continue;
        }
        ManifestItem item;
        item.path = unchecked.path.empty() ? m_run.ini.data_directory : whole_path(unchecked.path);
        if (unchecked.may_come && (item.path == handed_out || m_run.set.has(item.path)))
            continue;
        if (!unchecked.path.empty() && database_link_target(item.path))
            continue; // its own bytes and what it leads to are looked at later
        item.kind = unchecked.path.empty() ? ItemKind::directory : item_kind_of(item.path);
        item.reason = unchecked.problem;
        if (unchecked.path.empty())
            item.reason = "a database below it: " + item.reason;
        else if (m_run.ini.linear_logging && !unchecked.modified_since)
            item.reason = "with linear logging the server does not tell whether a logged database "
                          "changed";
        m_run.set.meet(item.path);
        m_run.set.add(std::move(item));
    }
    m_run.told.last_error_line.clear();
}

// The path that the module showed, which it cuts and translates for its messages: where just one
// database can be meant, its own.
std::string PassedOver::whole_path(const std::string& shown) const {
    struct stat status {};
    if (::lstat(shown.c_str(), &status) == 0)
        return shown;
    const std::string* meant = nullptr;
    for (const std::string& database : m_run.request.scan.databases)
        if (database.starts_with(shown)) {
            if (meant != nullptr)
                return shown;
            meant = &database;
        }
    return meant != nullptr ? *meant : shown;
}

void PassedOver::note_yield(const ManifestItem& item) {
    if (item.kind == ItemKind::directory)
        return;
    bool data_notes_ini = item.path == m_run.data_notes_ini();
    for (std::string path = item.path;; path = folder_of(path)) {
        if (auto found = m_argument_numbers.find(path); found != m_argument_numbers.end())
            m_yielded[found->second] = true;
        if (path == "/" || data_notes_ini) // that one comes with every selection
            return;
    }
}

std::vector<std::string> PassedOver::take_warnings() {
    return std::exchange(m_warnings, {});
}

void PassedOver::add_all() {
    add_unreachable();
    // A database that did not change is passed over, and so is notes.ini outside the data
    // directory.
    if (m_run.request.level == "diff" && m_run.is_whole_system())
        store_changed_notes_ini(m_run, m_reader);
    for (const ManifestItem& item : m_run.request.left_out)
        if (m_run.set.meet(item.path))
            m_run.set.add_silently(item);
    if (m_run.selects_changes())
        return;
    add_unreached();
    if (!m_run.listing_failed)
        add_arguments_without_yield();
}

void PassedOver::add(const std::string& path, const std::string& reason, ItemKind kind) {
    if (!m_run.set.has(path))
        m_run.set.add_failed(path, kind, reason);
}

// Where the module cannot go the client can, but for databases.
void PassedOver::add_unreachable() {
    struct stat file {};
    for (const auto& [path, reason] : m_run.request.scan.unreachable)
        if (!m_run.is_whole_system() || !m_run.request.other_files || is_database_name(path) ||
            ::lstat(path.c_str(), &file) != 0 || !S_ISREG(file.st_mode))
            add(path, reason, item_kind_of(path));
    for (const auto& [path, reason] : m_run.request.missing_folders) {
        if (m_run.set.forget_met(path)) // one that is empty was handed out
            m_run.set.drop(path);
        add(path, reason, ItemKind::directory);
    }
    for (const LeftOut& left_out : m_run.told.left_out)
        add(left_out.path, left_out.reason, ItemKind::directory);
}

// Databases that are there, and never came.
void PassedOver::add_unreached() {
    struct stat status {};
    for (const std::string& path : m_run.request.scan.databases)
        if (!m_run.set.has(path) && (::stat(path.c_str(), &status) == 0 || errno != ENOENT))
            add(path,
                m_run.listing_failed ? "it was not reached"
                                     : "the module did not hand it out: --trace shows what it did",
                ItemKind::database);
}

void PassedOver::add_arguments_without_yield() {
    for (std::size_t i = 0; i < m_run.request.arguments.size(); ++i) {
        const DatabaseArgument& argument = m_run.request.arguments[i];
        if (m_yielded[i])
            continue;
        // The folder itself may have been handed out, just nothing in it.
        (void)m_run.set.forget_met(argument.path);
        add(argument.path,
            fmt::format("DATABASE '{}' selected nothing: the module saves databases and the files "
                        "of a server (.nsf, .ntf, .box, .ncf, .id, .dic, .cfg, .njf, .dsk, .nlo)",
                        argument.given),
            argument.directory ? ItemKind::directory : item_kind_of(argument.path));
    }
}

} // namespace qrtln
