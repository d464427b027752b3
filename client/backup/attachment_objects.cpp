#include "client/backup/attachment_objects.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/original.h"
#include "client/sets/catalogue.h"
#include "client/sets/server_scope.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <utility>

namespace qrtln {

namespace {

// Goes through folders and links to folders, each folder once, as the module does.
class ObjectFinder {
  public:
    std::set<std::string> objects;
    std::vector<std::string> folders;                         // outside the data directory
    std::vector<std::pair<std::string, std::string>> unknown; // with what kept from a look

    explicit ObjectFinder(std::string data_directory)
        : m_data_directory(std::move(data_directory)) {}

    void look_below(const std::string& folder) {
        // As in the module a link to any folder above is one that never ends.
        m_above.clear();
        struct stat above {};
        for (std::string path = folder; path != "/";) {
            path = folder_of(path);
            if (::stat(path.c_str(), &above) == 0)
                m_above.emplace(above.st_dev, above.st_ino);
        }
        std::vector<std::string> waiting = {folder};
        while (!waiting.empty()) {
            std::string path = std::move(waiting.back());
            waiting.pop_back();
            look_into(path, waiting);
        }
    }

  private:
    void look_into(const std::string& path, std::vector<std::string>& waiting) {
        throw_if_interrupted();
        struct stat status {};
        std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(path.c_str()), ::closedir);
        if (!listing || ::fstat(::dirfd(listing.get()), &status) != 0) {
            if (errno != ENOENT && errno != ENOTDIR && name_of(path) != "lost+found")
                unknown.emplace_back(path, system_error_text(errno));
            return;
        }
        if (m_above.contains({status.st_dev, status.st_ino}) ||
            !m_seen.emplace(status.st_dev, status.st_ino).second)
            return;
        if (!is_below(path, m_data_directory))
            folders.push_back(path);
        errno = 0;
        while (const dirent* entry = ::readdir(listing.get())) {
            std::string name = entry->d_name;
            bool perhaps_folder =
                entry->d_type == DT_DIR || entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN;
            bool object = is_attachment_object(name);
            bool looked_at = perhaps_folder && name != "." && name != ".." &&
                             ::stat((path + "/" + name).c_str(), &status) == 0;
            if (looked_at && S_ISDIR(status.st_mode))
                waiting.push_back(path + "/" + name);
            else if (object && (entry->d_type == DT_REG || (looked_at && S_ISREG(status.st_mode))))
                objects.insert(path + "/" + name);
            errno = 0;
        }
        if (errno != 0)
            unknown.emplace_back(path, system_error_text(errno));
    }

    const std::string m_data_directory;
    std::set<std::pair<dev_t, ino_t>> m_seen;
    std::set<std::pair<dev_t, ino_t>> m_above; // the folder that is looked below
};

ManifestItem failed_item(const std::string& path, ItemKind kind, const std::string& reason) {
    ManifestItem item;
    item.path = path;
    item.kind = kind;
    item.reason = reason;
    return item;
}

std::string common_folder(const std::string& one, const std::string& other) {
    std::string folder = one;
    while (!is_below(other, folder))
        folder = folder_of(folder);
    return folder;
}

} // namespace

bool saves_attachment_objects(const std::string& level, bool named) {
    return !(named && level == "diff");
}

AttachmentObjects::AttachmentObjects(Store& store, const NotesIni& ini, ObjectSearch search)
    : m_store(store), m_ini(ini), m_search(std::move(search)) {
    load_sets();
}

void AttachmentObjects::load_sets() {
    std::optional<BaseSet> full = find_base(m_store, m_ini.sets);
    if (full)
        m_newest_full = full->set;
    for (const std::string& name : m_store.set_names()) {
        throw_if_interrupted();
        if (name < m_newest_full && name < m_search.base)
            continue;
        CatalogueEntry entry = load_set(m_store, name, m_ini.sets);
        if (!entry.manifest)
            continue;
        for (ManifestItem& item : entry.manifest->items)
            if (item.status == ItemStatus::stored && is_attachment_object(item.path) &&
                !item.object.empty()) {
                Held& held = m_held[item.path];
                held.in_base = held.in_base || name == m_search.base;
                held.item = std::move(item);
            }
    }
}

// Whether a set has it as it is now, in a store that has its content.
bool AttachmentObjects::is_held(const ManifestItem& now, std::uint64_t size,
                                const Held*& held) const {
    auto found = m_held.find(now.path);
    if (found == m_held.end() || m_search.reread)
        return false;
    held = &found->second;
    const ManifestItem& item = held->item;
    return item.size == size && item.mtime_ns == now.mtime_ns &&
           m_store.has_object(item.object, item.stored_size);
}

ManifestItem AttachmentObjects::gone(const std::string& path) const {
    auto found = m_held.find(path);
    if (found != m_held.end() &&
        m_store.has_object(found->second.item.object, found->second.item.stored_size)) {
        ManifestItem item = found->second.item;
        item.warnings.emplace_back("deleted from the server during the backup: its content is that "
                                   "of an earlier set");
        return item;
    }
    return failed_item(path, ItemKind::other,
                       "it was there when the backup began, and is gone: databases that were "
                       "copied before may refer to it; back up again");
}

// A disk that is not mounted leaves an empty folder, or none.
void AttachmentObjects::require_folder(ObjectPlan& plan, const std::set<std::string>& found) const {
    const std::string& folder = m_ini.attachment_folder;
    auto below = [&](const std::string& path) { return is_below(path, folder); };
    auto held_below = std::count_if(m_held.begin(), m_held.end(),
                                    [&](const auto& entry) { return below(entry.first); });
    bool none_there = std::none_of(found.begin(), found.end(), below);
    bool expected = held_below > 0 || (found.empty() && !m_held.empty());
    bool told = std::any_of(plan.failed.begin(), plan.failed.end(),
                            [&](const ManifestItem& item) { return item.path == folder; });
    if (!none_there || !expected || told || m_search.folder_may_be_empty || m_search.comes_first)
        return;
    plan.failed.push_back(
        failed_item(folder, ItemKind::directory,
                    fmt::format("{}, but the sets have {}: mount its disk; if they were removed "
                                "for good, say --removed {}",
                                exists(folder) ? "the folder holds no attachment object"
                                               : "the folder of the attachment objects is missing",
                                m_held.size(), folder)));
}

ObjectPlan AttachmentObjects::plan() {
    ObjectPlan plan;
    ObjectFinder finder(m_ini.data_directory);
    if (m_ini.attachment_folder != "/")
        finder.look_below(m_ini.attachment_folder);
    finder.look_below(m_ini.data_directory);
    OriginalReader originals;
    for (const std::string& folder : finder.folders) {
        plan.folders.push_back(originals.look_at(folder));
        plan.folders.back().status = ItemStatus::stored;
    }
    for (const auto& [path, problem] : finder.unknown)
        plan.failed.push_back(failed_item(path, ItemKind::directory,
                                          "the folder cannot be read, no attachment object below "
                                          "it was saved: " +
                                              problem));
    require_folder(plan, finder.objects);
    std::set<std::string> objects = finder.objects;
    objects.insert(m_search.listed.begin(), m_search.listed.end());
    for (const std::string& path : objects) {
        throw_if_interrupted();
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) {
            if (errno != ENOENT)
                plan.failed.push_back(failed_item(
                    path, ItemKind::other, "cannot look at it: " + system_error_text(errno)));
            else if (ManifestItem item = gone(path); item.status == ItemStatus::stored)
                plan.refer.push_back(std::move(item));
            else
                plan.failed.push_back(std::move(item));
            continue;
        }
        ManifestItem now = originals.describe(path, ItemKind::other, status);
        const Held* held = nullptr;
        if (!is_held(now, static_cast<std::uint64_t>(status.st_size), held)) {
            plan.read.push_back(path);
            continue;
        }
        bool follows = m_search.comes_first || m_search.level == "incr";
        if (follows || (m_search.level == "diff" && held->in_base))
            continue;
        now.object = held->item.object;
        now.size = held->item.size;
        now.stored_size = held->item.stored_size;
        now.copied = held->item.copied;
        now.status = ItemStatus::stored;
        plan.refer.push_back(std::move(now));
    }
    return plan;
}

NeededObjects needed_objects(Store& store, const ServerScope& scope,
                             const std::set<std::string>& sets) {
    NeededObjects needed;
    if (sets.empty())
        return needed;
    std::string first = *sets.begin();
    CatalogueEntry oldest = load_set(store, first, scope);
    if (oldest.manifest && !oldest.manifest->base.empty())
        first = oldest.manifest->base;
    std::map<std::string, bool> objects; // whether they are missing
    std::vector<std::string> names = store.set_names();
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        throw_if_interrupted();
        if (*name > *sets.rbegin())
            continue;
        CatalogueEntry entry = load_set(store, *name, scope);
        if (!entry.manifest)
            continue;
        for (const ManifestItem& item : entry.manifest->items)
            if (item.status == ItemStatus::stored && is_attachment_object(item.path))
                objects.emplace(item.path, !exists(item.path));
        // A set of some databases, or one that is not complete, lacks what the full one before has.
        bool full = entry.manifest->whole_system && entry.manifest->complete &&
                    (entry.manifest->level == "full" || entry.manifest->level == "copy");
        if (*name <= first && full)
            break;
    }
    for (const auto& [path, missing] : objects) {
        ++needed.held;
        if (!missing)
            continue;
        ++needed.missing;
        const std::string folder = folder_of(path);
        needed.folder = needed.missing == 1 ? folder : common_folder(needed.folder, folder);
    }
    return needed;
}

std::string needed_objects_text(const NeededObjects& needed) {
    if (needed.missing == 0)
        return {};
    return fmt::format("the restored databases may need attachment objects: {} of {} that the sets "
                       "hold are missing in {};\n`qrtln restore ... {}` brings them back\n",
                       needed.missing, needed.held, for_terminal(needed.folder),
                       for_terminal(needed.folder));
}

nlohmann::json needed_objects_json(const NeededObjects& needed) {
    return {{"held", needed.held},
            {"missing", needed.missing},
            {"folder", printable_utf8(needed.folder)}};
}

} // namespace qrtln
