#include "client/commands/backup_folders.h"

#include "client/backup/away_folder.h"
#include "client/base/error.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/sets/catalogue.h"
#include "client/sets/manifest.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>
#include <sys/stat.h>

namespace qrtln {

RemovedFolders::RemovedFolders(const std::vector<std::string>& given, const NotesIni& ini) {
    for (const std::string& folder : given)
        add(folder, ini);
}

void RemovedFolders::add(const std::string& given, const NotesIni& ini) {
    const std::string& data = ini.data_directory;
    std::string path =
        absolute_path(given.starts_with('/') ? given : fmt::format("{}/{}", data, given));
    auto refuse = [&](const std::string& reason) {
        throw ClientError(ExitCode::failed,
                          fmt::format("--removed '{}': {}", for_terminal(given), reason),
                          fmt::format("name a folder below the data directory {} that is gone",
                                      for_terminal(data)));
    };
    if (path == ini.attachment_folder) {
        m_attachments = true; // its backup looks whether they are
        return;
    }
    if (path == data || !is_below(path, data) || (path + "/").find("/../") != std::string::npos)
        refuse("it is not below the data directory");
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode))
        refuse("it is no folder");
    std::optional<AwayFolder> away = away_folder(path + "/", data);
    if (!away)
        refuse("the folder is there, and not empty");
    if (!away->readable)
        refuse(fmt::format("{}: {}", for_terminal(away->path), away->reason));
    m_paths.push_back(path);
}

bool RemovedFolders::covers(const std::string& path) const {
    return std::any_of(m_paths.begin(), m_paths.end(),
                       [&](const std::string& folder) { return is_below(path, folder); });
}

std::vector<std::pair<std::string, std::string>>
find_missing_folders(Store& store, const NotesIni& ini, const std::vector<std::string>& there,
                     const RemovedFolders& removed) {
    std::optional<BaseSet> base = find_base(store, ini.sets);
    CatalogueEntry entry = base ? load_set(store, base->set) : CatalogueEntry{};
    if (!entry.manifest)
        return {};
    std::set<std::string> databases(there.begin(), there.end());
    std::map<std::string, std::optional<AwayFolder>> looked_at;         // by folder
    std::map<std::string, std::pair<std::string, std::size_t>> missing; // reason and databases
    for (const ManifestItem& item : entry.manifest->items) {
        if (item.kind != ItemKind::database || item.status != ItemStatus::stored ||
            databases.contains(item.path) || removed.covers(item.path) ||
            !is_below(item.path, ini.data_directory))
            continue;
        auto [away, added] = looked_at.try_emplace(folder_of(item.path));
        if (added)
            away->second = away_folder(item.path, ini.data_directory);
        if (!away->second || !away->second->readable) // the scan tells of one that is not readable
            continue;
        auto& [reason, count] = missing[away->second->path];
        reason = away->second->reason;
        ++count;
    }
    std::vector<std::pair<std::string, std::string>> folders;
    folders.reserve(missing.size());
    for (const auto& [path, what] : missing)
        folders.emplace_back(path,
                             fmt::format("{}, but the set {} has {} databases below it: mount its "
                                         "disk; if it was removed for good, say --removed {}",
                                         what.first, base->set, what.second, path));
    return folders;
}

} // namespace qrtln
