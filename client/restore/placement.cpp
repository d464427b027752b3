#include "client/restore/placement.h"

#include "client/base/error.h"
#include "client/base/limits.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/database_link.h"
#include "client/domino/original.h"
#include "client/sets/manifest.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/stat.h>

namespace qrtln {

void check_relocation(const std::string& to, const std::string& data_directory) {
    if (to.empty())
        return;
    auto refuse_to = [&](const std::string& reason) {
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot restore to {}: {}", for_terminal(to), reason),
                          "name another folder with --to");
    };
    if (to == "/")
        refuse_to("the databases are in their original places there");
    std::string problem = path_problem(to);
    if (!problem.empty())
        refuse_to(problem);
    std::string real_to = nearest_existing(to);
    std::string missing = to.substr(real_to == "/" ? 0 : real_to.size());
    real_to = real_path(real_to).value_or(real_to) + missing;
    std::string real_data = real_path(data_directory).value_or(data_directory);
    for (const std::string& folder : {to, real_to})
        for (const std::string& directory : {data_directory, real_data})
            if (is_below(folder, directory))
                refuse_to("it is in the data directory " + for_terminal(directory));
    struct stat status {};
    if (::stat(to.c_str(), &status) != 0) {
        if (!exists(folder_of(to)))
            refuse_to("the folder above it does not exist");
    } else if (!S_ISDIR(status.st_mode)) {
        refuse_to("it is no folder");
    }
}

bool Placement::is_written_by_client(const ManifestItem& item) const {
    if (item.kind == ItemKind::directory || item.kind == ItemKind::link)
        return true;
    ItemKind by_name = item_kind_of(item.path);
    bool servers_log = m_log_directory.empty() || folder_of(item.path) == m_log_directory;
    if (by_name == ItemKind::database) // a link to one, which is written over no database
        return item.kind == ItemKind::other && item.size <= maximal_link_file;
    return item.kind == ItemKind::other && (by_name == ItemKind::file || !servers_log);
}

void Placement::place(PlannedItem& planned, const SelectedItem& selected) const {
    bool log = planned.item.kind == ItemKind::log || planned.item.kind == ItemKind::log_control;
    if (log)
        place_log(planned, selected);
    else if (!m_to.empty())
        relocate(planned);
    else
        place_original(planned, selected.named);
}

bool Placement::is_named_by_path(const std::string& path) const {
    const std::vector<std::string>& names = m_request.selection.names;
    return std::find(names.begin(), names.end(), path) != names.end();
}

void Placement::relocate(PlannedItem& planned) const {
    const ManifestItem& item = planned.item;
    planned.root = m_to;
    planned.announced = m_to + (m_request.plain ? "/" + name_of(item.path) : item.path);
    planned.target = planned.announced;
    planned.action = RestoreAction::write;
    if (item.kind == ItemKind::directory) {
        planned.action = RestoreAction::create_folder;
        if (m_request.plain)
            planned.leave_out("a plain restore makes no folders");
    }
}

void Placement::place_original(PlannedItem& planned, bool named) const {
    const std::string& path = planned.item.path;
    planned.announced = path;
    planned.target = path;
    planned.root = m_ini.data_directory;
    if (planned.item.kind == ItemKind::directory) {
        planned.action = RestoreAction::create_folder;
        if (is_below(path, m_ini.attachment_folder))
            place_attachment(planned);
        else if (!is_below(path, m_ini.data_directory))
            planned.leave_out("a folder outside the data directory");
    } else if (planned.item.kind == ItemKind::database) {
        place_database(planned, named);
    } else {
        place_file(planned, named);
    }
}

void Placement::place_database(PlannedItem& planned, bool named) const {
    const std::string& path = planned.item.path;
    bool inside = is_below(path, m_ini.data_directory) && path != m_ini.data_directory;
    planned.action = m_request.activate ? RestoreAction::activate : RestoreAction::place;
    if (inside)
        return;
    if (m_request.kind == RestoreKind::copies) {
        planned.refuse("it lies outside the data directory: recover it to a folder with --into");
        return;
    }
    if (!named || !is_named_by_path(path)) {
        planned.refuse("it lies outside the data directory: name its full path to restore it");
        return;
    }
    // Nothing but its own folder is trusted, and no link on the way there.
    planned.root = folder_of(path);
    if (real_path(planned.root).value_or("") != planned.root) {
        planned.refuse("its folder is missing, or is reached through a symbolic link");
        return;
    }
    if (m_request.activate || path.starts_with(m_ini.data_directory))
        return; // the module places it in the temporary folder
    planned.action = RestoreAction::write;
    if (exists(path))
        planned.refuse("it exists outside the data directory, where only --activate takes it "
                       "from its users first");
}

void Placement::place_log(PlannedItem& planned, const SelectedItem& selected) const {
    const std::string& path = planned.item.path;
    if (m_request.kind == RestoreKind::copies) {
        planned.leave_out("transaction logs come back as the recovery needs them");
        return;
    }
    if (!m_request.selection.all) {
        const char* reason = "transaction logs come back with --all only";
        selected.named ? planned.refuse(reason) : planned.leave_out(reason);
        return;
    }
    if (selected.other_log) {
        planned.leave_out("it is of a log that the server has replaced by a new one since then");
        return;
    }
    bool known = !m_log_directory.empty() && folder_of(path) == m_log_directory;
    if (!known) {
        planned.leave_out("it is not in the folder of the transaction logs (TRANSLOG_Path)");
        return;
    }
    if (exists(m_log_directory)) {
        planned.leave_out("the folder of the transaction logs is there: the server's own logs "
                          "are never replaced");
        return;
    }
    if (!m_to.empty()) {
        relocate(planned);
        return;
    }
    planned.announced = planned.target = path;
    planned.root = folder_of(m_log_directory);
    planned.action = RestoreAction::write;
    if (real_path(planned.root).value_or("") != planned.root)
        planned.refuse("the folder above the transaction logs is missing or a symbolic link");
}

void Placement::place_file(PlannedItem& planned, bool named) const {
    const std::string& path = planned.item.path;
    planned.action = RestoreAction::write;
    if (is_below(path, m_ini.data_directory) && path != m_ini.data_directory)
        return;
    if (is_attachment_object(path) && is_below(path, m_ini.attachment_folder)) {
        place_attachment(planned);
        return;
    }
    if (planned.item.kind == ItemKind::link) {
        planned.refuse("a link outside the data directory");
        return;
    }
    bool own_ini = path == m_ini.file;
    if (!named || !(is_named_by_path(path) || own_ini)) {
        planned.refuse("it lies outside the data directory: name its full path to restore it");
        return;
    }
    planned.root = folder_of(path);
    if (!own_ini && real_path(planned.root).value_or("") != planned.root)
        planned.refuse("its folder is missing, or is reached through a symbolic link");
}

// The folder of attachment objects is the server's wherever notes.ini says that it is.
void Placement::place_attachment(PlannedItem& planned) const {
    const std::string& folder = m_ini.attachment_folder;
    if (is_below(folder, m_ini.data_directory))
        return;
    planned.root = exists(folder) ? folder : folder_of(folder);
    if (planned.item.kind == ItemKind::directory && planned.item.path == planned.root)
        planned.leave_out("it is there");
    else if (!exists(planned.root))
        planned.refuse("the folder above that of the attachment objects (DAOSBasePath) is missing");
}

} // namespace qrtln
