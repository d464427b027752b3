#include "client/restore/plan.h"

#include "client/base/error.h"
#include "client/base/limits.h"
#include "client/base/paths.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/domino/database_link.h"
#include "client/domino/original.h"
#include "client/restore/file_users.h"
#include "client/restore/placement.h"
#include "client/restore/plan_room.h"
#include "client/restore/waiting_copies.h"
#include "client/sets/manifest.h"

#include <algorithm>
#include <climits>
#include <fmt/format.h>
#include <map>
#include <set>
#include <unistd.h>

namespace qrtln {

namespace {

class Planner {
  public:
    Planner(const NotesIni& ini, const RestoreRequest& request)
        : m_request(request),
          m_placement(ini, request, request.to.empty() ? "" : absolute_path(request.to)) {
        m_plan.kind = request.kind;
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

  private:
    PlannedItem plan_item(SelectedItem selected);
    void settle_existing(PlannedItem& planned, bool named) const;
    void look_at_link(PlannedItem& planned) const;
    void leave_out_links_in_the_way();
    void look_at_target(PlannedItem& planned);
    void refuse_collisions() const;

    const RestoreRequest& m_request;
    Placement m_placement;
    FileUsers m_users;
    std::optional<WaitingCopies> m_waiting;
    RestorePlan m_plan;
};

// Folders first, then logs, databases, and what configures the server last.
int order_of(ItemKind kind) {
    switch (kind) {
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
        m_plan.warnings.push_back(fmt::format(
            "{} older transaction logs have the names of newer ones and do not come back with "
            "them: `qrtln recover` takes them from the store when it needs them",
            selection.hidden_logs));
    std::stable_sort(m_plan.items.begin(), m_plan.items.end(), [](const auto& a, const auto& b) {
        return order_of(a.item.kind) < order_of(b.item.kind);
    });
    // A folder that is there needs nothing.
    std::erase_if(m_plan.items, [](const PlannedItem& planned) {
        return planned.action == RestoreAction::create_folder && planned.existing;
    });
    leave_out_links_in_the_way();
    refuse_collisions();
    m_plan.room = restore_room(m_plan.items, m_request.tmp_dir);
    return std::move(m_plan);
}

PlannedItem Planner::plan_item(SelectedItem selected) {
    PlannedItem planned;
    planned.set = std::move(selected.set);
    planned.item = std::move(selected.item);
    ManifestItem& item = planned.item;
    if (!m_placement.is_written_by_client(item))
        item.kind = item_kind_of(item.path); // the module goes by the name alone
    std::size_t limit = m_placement.is_written_by_client(item) ? PATH_MAX : module_path_size;
    if (std::string problem = path_problem(item.path, limit); !problem.empty()) {
        planned.refuse(problem);
        return planned;
    }
    bool link = item.kind == ItemKind::link;
    if (item.kind != ItemKind::directory && (link ? item.target : item.object).empty()) {
        planned.refuse("the set names no content for it");
        return planned;
    }
    m_placement.place(planned, selected);
    if (!planned.does_work())
        return planned;
    if (std::string problem = path_problem(planned.announced, limit); !problem.empty()) {
        planned.refuse("relocated, " + problem);
        return planned;
    }
    look_at_target(planned);
    if (link)
        look_at_link(planned);
    if (planned.action == RestoreAction::write && planned.existing && !planned.replaces)
        settle_existing(planned, selected.named);
    planned.keeps_replaced = m_plan.keep_replaced && planned.replaces;
    return planned;
}

// Whether what is written replaces what is there, or is left out for it.
void Planner::settle_existing(PlannedItem& planned, bool named) const {
    ItemKind kind = planned.item.kind;
    if (!m_plan.to.empty()) {
        planned.replaces = true;
        return;
    }
    if (kind != ItemKind::file && kind != ItemKind::other && kind != ItemKind::link)
        return;
    if (is_attachment_object(planned.item.path) && m_request.selection.all)
        planned.leave_out("it is there, and attachment objects are never changed");
    else if (m_plan.kind == RestoreKind::copies)
        planned.leave_out("it is there, and a recovery replaces databases only");
    else if (named)
        planned.replaces = true;
    else
        planned.leave_out("it exists, and is overwritten only when it is named, or with --all");
}

// A link that is there as it was needs nothing.
void Planner::look_at_link(PlannedItem& planned) const {
    if (planned.action != RestoreAction::write || !planned.existing)
        return;
    std::string target(PATH_MAX, '\0');
    ssize_t length = ::readlink(planned.target.c_str(), target.data(), target.size());
    if (length > 0 && target.substr(0, static_cast<std::size_t>(length)) == planned.item.target)
        planned.leave_out("it is there");
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
    if (!m_placement.log_folder().empty())
        add_above(m_placement.log_folder() + "/S0000001.TXN");
    for (PlannedItem& planned : m_plan.items) {
        if (planned.item.kind != ItemKind::link || planned.action == RestoreAction::leave_out ||
            !folders.contains(planned.item.path))
            continue;
        planned.leave_out(
            fmt::format("files come back below it: it was a link to {} and becomes a folder",
                        for_terminal(planned.item.target)));
        m_plan.warnings.push_back(
            fmt::format("{} does not come back as a link: {}", planned.item.path, planned.reason));
    }
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
        planned.refuse(problem);
        return;
    }
    if (planned.existing && !folder && !link)
        planned.used_by = m_users.describe(*planned.existing);
    if (planned.action == RestoreAction::activate ||
        (m_plan.kind == RestoreKind::copies && planned.action == RestoreAction::place))
        planned.replaces = planned.existing.has_value();
    if (planned.action == RestoreAction::activate && m_waiting)
        planned.copy_waits = m_waiting->has(planned.item);
    if (planned.action == RestoreAction::write && planned.item.kind == ItemKind::database &&
        !planned.used_by.empty())
        planned.refuse("it exists and is in use by process " + planned.used_by);
}

void Planner::refuse_collisions() const {
    std::map<std::string, const PlannedItem*> taken;
    for (const PlannedItem& planned : m_plan.items) {
        if (planned.action != RestoreAction::write)
            continue;
        auto [other, added] = taken.try_emplace(planned.target, &planned);
        if (!added)
            throw ClientError(
                ExitCode::failed,
                fmt::format("both {} and {} would be restored to {}: nothing was written",
                            for_terminal(other->second->item.path), for_terminal(planned.item.path),
                            for_terminal(planned.target)),
                "leave out --plain, which keeps the folders, or restore them to "
                "different folders");
    }
}

} // namespace

RestorePlan make_restore_plan(Store& store, const NotesIni& ini, const RestoreRequest& request) {
    if (!request.to.empty())
        check_relocation(absolute_path(request.to), ini.data_directory);
    return Planner(ini, request).run(select_for_restore(store, ini.sets, request.selection));
}

} // namespace qrtln
