#include "client/backup/database_links.h"

#include "client/backup/directory_links.h"
#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/domino/database_link.h"
#include "client/domino/original.h"

#include <fmt/format.h>
#include <utility>

namespace qrtln {

void DatabaseLinks::store(ManifestItem item, const std::string& target) {
    m_targets[item.path] = target;
    item.kind = ItemKind::other;
    (void)m_reader.read(item, item.path);
    throw_if_interrupted();
    m_run.set.add_read(std::move(item));
}

void DatabaseLinks::take(const std::string& path, const struct stat& status,
                         const HeldFiles& held) {
    std::optional<std::string> target = database_link_target(path);
    if (!target || m_run.set.has(path))
        return;
    m_targets[path] = *target;
    ManifestItem item = m_run.originals.describe(path, ItemKind::other, status);
    if (held.has(item, status))
        return;
    m_run.set.meet(path);
    store(std::move(item), *target);
}

// Databases that the server shows, and the module does not go to.
void DatabaseLinks::name_behind_directory_link(const std::string& link) {
    if (!is_directory_link(link))
        return;
    LinkedDatabases linked = databases_behind(link, m_run.ini);
    if (linked.databases.empty() && linked.unknown.empty())
        return;
    const std::string shown = shown_folder(link, m_run.ini.data_directory);
    auto name = [&](const std::string& path, const std::string& problem) {
        bool folder = path != linked.target && is_below(path, linked.target);
        std::string shown_path = shown + (folder ? "/" + path_below(path, linked.target) : "");
        if (is_reached(path))
            return;
        if (m_run.rules.of(shown_path, false) != PathRules::Verdict::taken)
            ++m_excluded;
        else if (!m_run.set.has(path))
            m_run.set.add_failed(
                path, item_kind_of(path),
                fmt::format("it lies behind the directory link {}{}: have a symbolic link lead "
                            "there, or leave it out with --exclude '{}/*'",
                            link,
                            problem.empty() ? ", which the module does not follow" : "; " + problem,
                            shown));
    };
    for (const std::string& database : linked.databases)
        name(database, "");
    for (const auto& [path, problem] : linked.unknown)
        name(path, problem);
}

void DatabaseLinks::name_targets() {
    const std::string data = real_path(m_run.ini.data_directory).value_or(m_run.ini.data_directory);
    for (const auto& [link, target] : m_targets) {
        bool inside = is_below(real_path(target).value_or(target), data);
        bool left_to_others = inside && (exists(target) || !m_run.is_whole_system());
        if (left_to_others || is_reached(target) || m_run.set.has(target))
            continue;
        const std::string shown = path_below(link, m_run.ini.data_directory);
        if (m_run.rules.of(shown, false) != PathRules::Verdict::taken)
            ++m_excluded;
        else
            m_run.set.add_failed(
                target, ItemKind::database,
                fmt::format("{} {}, which the module does not follow: have a symbolic link lead "
                            "there, or leave it out with --exclude '{}'",
                            exists(target) ? "it lies behind the database link"
                                           : "it is not there, and the database link leads to it:",
                            link, shown));
    }
}

// Whether the module reaches the database, through a symbolic link perhaps.
bool DatabaseLinks::is_reached(const std::string& path) {
    struct stat status {};
    if (!m_reached) {
        m_reached.emplace();
        for (const std::string& database : m_run.request.scan.databases)
            if (::stat(database.c_str(), &status) == 0)
                m_reached->emplace(status.st_dev, status.st_ino);
    }
    return ::stat(path.c_str(), &status) == 0 &&
           m_reached->contains({status.st_dev, status.st_ino});
}

} // namespace qrtln
