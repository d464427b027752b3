#include "client/restore/plan.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/limits.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/domino/database_link.h"
#include "client/domino/original.h"
#include "client/restore/file_users.h"
#include "client/restore/waiting_copies.h"
#include "client/sets/manifest.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <map>
#include <set>
#include <unistd.h>

namespace qrtln {

namespace {

class Planner {
  public:
    Planner(const NotesIni& ini, const RestoreRequest& request)
        : m_ini(ini), m_request(request), m_log_directory(log_directory(ini)) {
        m_plan.data_directory = ini.data_directory;
        m_plan.plain = request.plain;
        m_plan.activate = request.activate;
        m_plan.keep_replaced = request.keep_replaced;
        if (!request.to.empty())
            m_plan.to = absolute_path(request.to);
        if (request.activate)
            m_waiting.emplace(absolute_path(request.tmp_dir), ini.data_directory);
    }
    RestorePlan run(RestoreSelection selection);
    void check_relocation() const;

  private:
    PlannedItem plan_item(SelectedItem selected);
    void relocate(PlannedItem& planned);
    void plan_original(PlannedItem& planned, bool named);
    void plan_database(PlannedItem& planned, bool named);
    void plan_log(PlannedItem& planned, const SelectedItem& selected);
    void plan_file(PlannedItem& planned, bool named);
    void plan_attachment(PlannedItem& planned);
    bool is_clients_own(const ManifestItem& item) const;
    void look_at_link(PlannedItem& planned);
    void leave_out_links_in_the_way();
    void look_at_target(PlannedItem& planned);
    void refuse_collisions();
    void count_room();

    const NotesIni& m_ini;
    const RestoreRequest& m_request;
    std::string m_log_directory;
    FileUsers m_users;
    std::optional<WaitingCopies> m_waiting;
    RestorePlan m_plan;
};

std::uint64_t size_of(const std::optional<struct stat>& file) {
    return file ? static_cast<std::uint64_t>(file->st_size) : 0;
}

void leave_out(PlannedItem& planned, const std::string& reason) {
    planned.action = RestoreAction::leave_out;
    planned.reason = reason;
}

void refuse(PlannedItem& planned, const std::string& reason) {
    planned.action = RestoreAction::refuse;
    planned.reason = reason;
}

void Planner::check_relocation() const {
    if (m_plan.to.empty())
        return;
    auto refuse_to = [&](const std::string& reason) {
        throw ClientError(ExitCode::failed,
                          "cannot restore to " + for_terminal(m_plan.to) + ": " + reason,
                          "name another folder with --to");
    };
    if (m_plan.to == "/")
        refuse_to("the databases are in their original places there");
    std::string problem = path_problem(m_plan.to);
    if (!problem.empty())
        refuse_to(problem);
    std::string real_to = nearest_existing(m_plan.to);
    std::string missing = m_plan.to.substr(real_to == "/" ? 0 : real_to.size());
    real_to = real_path(real_to).value_or(real_to) + missing;
    const std::string& data = m_ini.data_directory;
    std::string real_data = real_path(data).value_or(data);
    for (const std::string& to : {m_plan.to, real_to})
        for (const std::string& directory : {data, real_data})
            if (is_below(to, directory))
                refuse_to("it is in the data directory " + for_terminal(directory));
    struct stat status {};
    if (::stat(m_plan.to.c_str(), &status) != 0) {
        if (!exists(folder_of(m_plan.to)))
            refuse_to("the folder above it does not exist");
    } else if (!S_ISDIR(status.st_mode)) {
        refuse_to("it is no folder");
    }
}

RestorePlan Planner::run(RestoreSelection selection) {
    m_plan.warnings = std::move(selection.warnings);
    m_plan.users_known = m_users.sees_all();
    for (SelectedItem& selected : selection.items) {
        if (selected.item.kind == ItemKind::directory)
            m_plan.folders.emplace(selected.item.path, selected.item);
        if (selected.item.kind == ItemKind::directory && !m_request.selection.all)
            continue; // folders come with what is in them
        m_plan.items.push_back(plan_item(std::move(selected)));
    }
    bool logs_come_back =
        std::any_of(m_plan.items.begin(), m_plan.items.end(), [](const PlannedItem& planned) {
            return planned.item.log && planned.action == RestoreAction::write;
        });
    if (logs_come_back && selection.hidden_logs > 0)
        m_plan.warnings.push_back(std::to_string(selection.hidden_logs) +
                                  " older transaction logs have the names of newer ones and do not "
                                  "come back with them: `qrtln recover` takes them from the store "
                                  "when it needs them");
    // Folders first, then logs, databases, and what configures the server last.
    auto rank = [](const PlannedItem& planned) {
        switch (planned.item.kind) {
        case ItemKind::directory:
            return 0;
        case ItemKind::log:
        case ItemKind::log_control:
            return 1;
        case ItemKind::database:
            return 2;
        case ItemKind::file:
        case ItemKind::other:
            break;
        case ItemKind::link:
            return 4; // nothing else is written once there is one
        }
        return 3;
    };
    std::stable_sort(m_plan.items.begin(), m_plan.items.end(),
                     [&](const auto& a, const auto& b) { return rank(a) < rank(b); });
    // A folder that is there needs nothing.
    std::erase_if(m_plan.items, [](const PlannedItem& planned) {
        return planned.action == RestoreAction::create_folder && planned.existing;
    });
    leave_out_links_in_the_way();
    refuse_collisions();
    count_room();
    return std::move(m_plan);
}

PlannedItem Planner::plan_item(SelectedItem selected) {
    PlannedItem planned;
    planned.set = std::move(selected.set);
    planned.item = std::move(selected.item);
    ManifestItem& item = planned.item;
    if (!is_clients_own(item))
        item.kind = item_kind_of(item.path); // the module goes by the name alone
    std::size_t limit = is_clients_own(item) ? PATH_MAX : module_path_size;
    if (std::string problem = path_problem(item.path, limit); !problem.empty()) {
        refuse(planned, problem);
        return planned;
    }
    bool link = item.kind == ItemKind::link;
    if (item.kind != ItemKind::directory && (link ? item.target : item.object).empty()) {
        refuse(planned, "the set names no content for it");
        return planned;
    }
    bool log = item.kind == ItemKind::log || item.kind == ItemKind::log_control;
    if (log)
        plan_log(planned, selected);
    else if (!m_plan.to.empty())
        relocate(planned);
    else
        plan_original(planned, selected.named);
    if (planned.action == RestoreAction::leave_out || planned.action == RestoreAction::refuse)
        return planned;
    if (std::string problem = path_problem(planned.announced, limit); !problem.empty()) {
        refuse(planned, "relocated, " + problem);
        return planned;
    }
    look_at_target(planned);
    if (link)
        look_at_link(planned);
    if (planned.action == RestoreAction::write && planned.existing && !planned.replaces) {
        bool kept = item.kind == ItemKind::file || item.kind == ItemKind::other || link;
        if (kept && m_plan.to.empty()) {
            if (is_attachment_object(item.path) && m_request.selection.all)
                leave_out(planned, "it is there, and attachment objects are never changed");
            else if (m_request.recovery)
                leave_out(planned, "it is there, and a recovery replaces databases only");
            else if (selected.named)
                planned.replaces = true;
            else
                leave_out(planned, "it exists, and is overwritten only when it is named, or with "
                                   "--all");
        } else if (!m_plan.to.empty()) {
            planned.replaces = true;
        }
    }
    planned.keeps_replaced = m_plan.keep_replaced && planned.replaces;
    return planned;
}

// What the client writes by itself. Names count all the same: a database, or a log of the server,
// is never written as something else, whatever a manifest says.
bool Planner::is_clients_own(const ManifestItem& item) const {
    if (item.kind == ItemKind::directory || item.kind == ItemKind::link)
        return true;
    ItemKind by_name = item_kind_of(item.path);
    bool servers_log = m_log_directory.empty() || folder_of(item.path) == m_log_directory;
    if (by_name == ItemKind::database) // a link to one, which is written over no database
        return item.kind == ItemKind::other && item.size <= maximal_link_file;
    return item.kind == ItemKind::other && (by_name == ItemKind::file || !servers_log);
}

// A link that is there as it was needs nothing.
void Planner::look_at_link(PlannedItem& planned) {
    if (planned.action != RestoreAction::write || !planned.existing)
        return;
    std::string target(PATH_MAX, '\0');
    ssize_t length = ::readlink(planned.target.c_str(), target.data(), target.size());
    if (length > 0 && target.substr(0, static_cast<std::size_t>(length)) == planned.item.target)
        leave_out(planned, "it is there");
}

// What lies below the path of a link is written through no link: a folder takes its place.
void Planner::leave_out_links_in_the_way() {
    std::set<std::string> folders;
    auto add_above = [&](std::string path) {
        while (path.size() > 1 && folders.insert(path = folder_of(path)).second)
            ;
    };
    for (const PlannedItem& planned : m_plan.items)
        add_above(planned.item.path);
    if (!m_log_directory.empty())
        add_above(m_log_directory + "/S0000001.TXN");
    for (PlannedItem& planned : m_plan.items) {
        if (planned.item.kind != ItemKind::link || planned.action == RestoreAction::leave_out ||
            !folders.contains(planned.item.path))
            continue;
        leave_out(planned, "files come back below it: it was a link to " +
                               for_terminal(planned.item.target) + " and becomes a folder");
        m_plan.warnings.push_back(planned.item.path +
                                  " does not come back as a link: " + planned.reason);
    }
}

void Planner::relocate(PlannedItem& planned) {
    const ManifestItem& item = planned.item;
    planned.root = m_plan.to;
    planned.announced = m_plan.to + (m_plan.plain ? "/" + name_of(item.path) : item.path);
    planned.target = planned.announced;
    planned.action = RestoreAction::write;
    if (item.kind == ItemKind::directory) {
        planned.action = RestoreAction::create_folder;
        if (m_plan.plain)
            leave_out(planned, "a plain restore makes no folders");
    }
}

void Planner::plan_original(PlannedItem& planned, bool named) {
    const std::string& path = planned.item.path;
    planned.announced = path;
    planned.target = path;
    planned.root = m_ini.data_directory;
    if (planned.item.kind == ItemKind::directory) {
        planned.action = RestoreAction::create_folder;
        if (is_below(path, m_ini.attachment_folder))
            plan_attachment(planned);
        else if (!is_below(path, m_ini.data_directory))
            leave_out(planned, "a folder outside the data directory");
    } else if (planned.item.kind == ItemKind::database) {
        plan_database(planned, named);
    } else {
        plan_file(planned, named);
    }
}

void Planner::plan_database(PlannedItem& planned, bool named) {
    const std::string& path = planned.item.path;
    bool inside = is_below(path, m_ini.data_directory) && path != m_ini.data_directory;
    planned.action = m_plan.activate ? RestoreAction::activate : RestoreAction::place;
    if (inside)
        return;
    if (m_request.recovery) {
        refuse(planned, "it lies outside the data directory: recover it to a folder with --into");
        return;
    }
    bool by_name = std::find(m_request.selection.names.begin(), m_request.selection.names.end(),
                             path) != m_request.selection.names.end();
    if (!named || !by_name) {
        refuse(planned, "it lies outside the data directory: name its full path to restore it");
        return;
    }
    // Nothing but its own folder is trusted, and no link on the way there.
    planned.root = folder_of(path);
    if (real_path(planned.root).value_or("") != planned.root) {
        refuse(planned, "its folder is missing, or is reached through a symbolic link");
        return;
    }
    if (m_plan.activate || path.starts_with(m_ini.data_directory))
        return; // the module places it in the temporary folder
    planned.action = RestoreAction::write;
    if (exists(path))
        refuse(planned, "it exists outside the data directory, where only --activate takes it "
                        "from its users first");
}

void Planner::plan_log(PlannedItem& planned, const SelectedItem& selected) {
    const std::string& path = planned.item.path;
    if (m_request.recovery) {
        leave_out(planned, "transaction logs come back as the recovery needs them");
        return;
    }
    if (!m_request.selection.all) {
        const char* reason = "transaction logs come back with --all only";
        selected.named ? refuse(planned, reason) : leave_out(planned, reason);
        return;
    }
    if (selected.other_log) {
        leave_out(planned, "it is of a log that the server has replaced by a new one since then");
        return;
    }
    bool known = !m_log_directory.empty() && folder_of(path) == m_log_directory;
    if (!known) {
        leave_out(planned, "it is not in the folder of the transaction logs (TRANSLOG_Path)");
        return;
    }
    if (exists(m_log_directory)) {
        leave_out(planned, "the folder of the transaction logs is there: the server's own logs "
                           "are never replaced");
        return;
    }
    if (!m_plan.to.empty()) {
        relocate(planned);
        return;
    }
    planned.announced = planned.target = path;
    planned.root = folder_of(m_log_directory);
    planned.action = RestoreAction::write;
    if (real_path(planned.root).value_or("") != planned.root)
        refuse(planned, "the folder above the transaction logs is missing or a symbolic link");
}

void Planner::plan_file(PlannedItem& planned, bool named) {
    const std::string& path = planned.item.path;
    planned.action = RestoreAction::write;
    if (is_below(path, m_ini.data_directory) && path != m_ini.data_directory)
        return;
    if (is_attachment_object(path) && is_below(path, m_ini.attachment_folder)) {
        plan_attachment(planned);
        return;
    }
    bool by_name = std::find(m_request.selection.names.begin(), m_request.selection.names.end(),
                             path) != m_request.selection.names.end();
    if (planned.item.kind == ItemKind::link) {
        refuse(planned, "a link outside the data directory");
        return;
    }
    bool own_ini = path == m_ini.file;
    if (!named || !(by_name || own_ini)) {
        refuse(planned, "it lies outside the data directory: name its full path to restore it");
        return;
    }
    planned.root = folder_of(path);
    if (!own_ini && real_path(planned.root).value_or("") != planned.root)
        refuse(planned, "its folder is missing, or is reached through a symbolic link");
}

// The folder of attachment objects is the server's wherever notes.ini says that it is.
void Planner::plan_attachment(PlannedItem& planned) {
    const std::string& folder = m_ini.attachment_folder;
    if (is_below(folder, m_ini.data_directory))
        return;
    planned.root = exists(folder) ? folder : folder_of(folder);
    if (planned.item.kind == ItemKind::directory && planned.item.path == planned.root)
        leave_out(planned, "it is there");
    else if (!exists(planned.root))
        refuse(planned,
               "the folder above that of the attachment objects (DAOSBasePath) is missing");
}

// Only what lies below the root without a link out of it, and only a regular file gives way.
void Planner::look_at_target(PlannedItem& planned) {
    if (!exists(planned.root))
        return; // --to, or the folder of the logs' folder: checked before
    std::string problem;
    SafeFolder root(planned.root);
    planned.existing = root.look_at(path_below(planned.target, planned.root), problem);
    bool folder = planned.action == RestoreAction::create_folder;
    mode_t mode = planned.existing ? planned.existing->st_mode : 0;
    bool link = planned.item.kind == ItemKind::link;
    bool fits = folder ? S_ISDIR(mode) : link ? S_ISLNK(mode) : S_ISREG(mode);
    if (problem.empty() && planned.existing && !fits)
        problem = std::string("in its place is ") + (S_ISLNK(mode)   ? "a symbolic link"
                                                     : S_ISREG(mode) ? "a file"
                                                                     : file_type_name(mode));
    bool database = item_kind_of(planned.target) == ItemKind::database;
    if (problem.empty() && planned.existing && database &&
        (planned.item.kind == ItemKind::database) ==
            database_link_target(planned.target).has_value())
        problem = planned.item.kind == ItemKind::database
                      ? "in its place is a link to a database elsewhere: move it away first"
                      : "in its place is a database, and the set has a link to one elsewhere";
    if (!problem.empty()) {
        refuse(planned, problem);
        return;
    }
    if (planned.existing && !folder && !link)
        planned.used_by = m_users.describe(*planned.existing);
    if (planned.action == RestoreAction::activate ||
        (m_request.recovery && planned.action == RestoreAction::place))
        planned.replaces = planned.existing.has_value();
    if (planned.action == RestoreAction::activate && m_waiting)
        planned.copy_waits = m_waiting->has(planned.item);
    if (planned.action == RestoreAction::write && planned.item.kind == ItemKind::database &&
        !planned.used_by.empty())
        refuse(planned, "it exists and is in use by process " + planned.used_by);
}

void Planner::refuse_collisions() {
    std::map<std::string, const PlannedItem*> taken;
    for (const PlannedItem& planned : m_plan.items) {
        if (planned.action != RestoreAction::write)
            continue;
        auto [other, added] = taken.try_emplace(planned.target, &planned);
        if (!added)
            throw ClientError(ExitCode::failed,
                              "both " + for_terminal(other->second->item.path) + " and " +
                                  for_terminal(planned.item.path) + " would be restored to " +
                                  for_terminal(planned.target) + ": nothing was written",
                              "leave out --plain, which keeps the folders, or restore them to "
                              "different folders");
    }
}

void Planner::count_room() {
    RoomCount rooms;
    std::uint64_t largest_activated = 0;
    std::map<dev_t, std::uint64_t> largest_replaced;
    std::string tmp = absolute_path(m_request.tmp_dir);
    for (const PlannedItem& planned : m_plan.items) {
        std::uint64_t size = planned.item.size;
        std::uint64_t old = occupied_bytes(planned.existing);
        if (planned.action == RestoreAction::write && old > 0 && planned.existing->st_nlink > 1)
            old = 0; // its other names keep it
        if (planned.keeps_replaced)
            rooms.at(folder_of(planned.target)).needed += size_of(planned.existing);
        std::uint64_t growth = size > old ? size - old : 0;
        switch (planned.action) {
        case RestoreAction::place:
            rooms.at(tmp).needed += size;
            break;
        case RestoreAction::activate:
            rooms.at(folder_of(planned.target)).needed += growth;
            if (planned.copy_waits)
                break;
            largest_activated = std::max(largest_activated, size);
            if (!planned.used_by.empty()) // its copy stays
                rooms.at(tmp).needed += size;
            break;
        case RestoreAction::write: {
            // The old file is there until the new one is whole.
            RoomNeeded& room = rooms.at(folder_of(planned.target));
            room.needed += growth;
            std::uint64_t& largest = largest_replaced[room.device];
            largest = std::max(largest, std::min(old, size));
            break;
        }
        case RestoreAction::create_folder:
        case RestoreAction::leave_out:
        case RestoreAction::refuse:
            break;
        }
    }
    if (largest_activated > 0)
        rooms.at(tmp).needed += largest_activated; // copies come and go one by one
    m_plan.room = rooms.list();
    for (RoomNeeded& room : m_plan.room)
        room.needed += largest_replaced[room.device];
}

std::string time_text(const struct stat& status) {
    return utc_time(status.st_mtim.tv_sec);
}

} // namespace

const char* action_name(RestoreAction action) {
    switch (action) {
    case RestoreAction::activate:
        return "activate";
    case RestoreAction::place:
        return "place";
    case RestoreAction::write:
        return "write";
    case RestoreAction::create_folder:
        return "create folder";
    case RestoreAction::leave_out:
        return "leave out";
    case RestoreAction::refuse:
        break;
    }
    return "refuse";
}

RestorePlan make_restore_plan(Store& store, const NotesIni& ini, const RestoreRequest& request) {
    Planner planner(ini, request);
    planner.check_relocation();
    return planner.run(select_for_restore(store, ini.sets, request.selection));
}

std::string existing_text(const PlannedItem& planned) {
    std::string text = "-";
    if (planned.existing)
        text = human_bytes(static_cast<std::uint64_t>(planned.existing->st_size)) + " of " +
               time_text(*planned.existing) +
               (planned.keeps_replaced ? ", is replaced and kept"
                : planned.replaces     ? ", is replaced"
                                       : ", stays");
    if (!planned.used_by.empty())
        text += ", in use by " + planned.used_by;
    return text;
}

std::string plan_text(const RestorePlan& plan) {
    Table table({"ACTION", "SIZE ", "SET", "PATH", "WRITTEN TO", "THERE NOW"});
    for (const PlannedItem& planned : plan.items) {
        bool folder = planned.item.kind == ItemKind::directory;
        std::string written = planned.action == RestoreAction::place ? "(temporary folder)"
                              : !planned.reason.empty()              ? planned.reason
                                                                     : for_terminal(planned.target);
        table.add({action_name(planned.action), folder ? "-" : human_bytes(planned.item.size),
                   for_terminal(planned.set), for_terminal(planned.item.path), written,
                   existing_text(planned)});
    }
    std::string text = table.text() + room_text(plan.room);
    if (!plan.users_known)
        text += "this user may not look at every process: a database may be in use all the same\n";
    return text;
}

nlohmann::json plan_json(const RestorePlan& plan) {
    nlohmann::json items = nlohmann::json::array();
    for (const PlannedItem& planned : plan.items) {
        nlohmann::json item = {{"path", printable_utf8(planned.item.path)},
                               {"kind", item_kind_name(planned.item.kind)},
                               {"set", printable_utf8(planned.set)},
                               {"action", action_name(planned.action)},
                               {"size", planned.item.size},
                               {"replaces", planned.replaces},
                               {"copy_waits", planned.copy_waits},
                               {"keeps_replaced", planned.keeps_replaced},
                               {"existing", nullptr}};
        if (!planned.reason.empty())
            item["reason"] = printable_utf8(planned.reason);
        else if (planned.action != RestoreAction::place)
            item["target"] = printable_utf8(planned.target);
        if (planned.existing)
            item["existing"] = {{"size", planned.existing->st_size},
                                {"modified", time_text(*planned.existing)}};
        if (!planned.used_by.empty())
            item["used_by"] = printable_utf8(planned.used_by);
        items.push_back(std::move(item));
    }
    return {{"data_directory", printable_utf8(plan.data_directory)},
            {"to", plan.to.empty() ? nlohmann::json() : nlohmann::json(printable_utf8(plan.to))},
            {"plain", plan.plain},
            {"activate", plan.activate},
            {"keep_replaced", plan.keep_replaced},
            {"users_known", plan.users_known},
            {"items", items},
            {"room", room_json(plan.room)},
            {"warnings", plan.warnings}};
}

} // namespace qrtln
