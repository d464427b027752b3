#include "client/backup/away_folder.h"

#include "client/base/error.h"
#include "client/base/file_io.h"

#include <string>
#include <vector>

namespace qrtln {

namespace {

std::optional<AwayFolder> look_at(const std::string& folder) {
    std::optional<std::vector<std::string>> names = names_in_folder(folder);
    if (!names && (errno == ENOENT || errno == ENOTDIR))
        return AwayFolder{folder, "the folder is missing"};
    if (!names)
        return AwayFolder{folder, "the folder cannot be read: " + system_error_text(errno), false};
    std::erase(*names, "lost+found"); // a new file system's own
    return names->empty() ? std::optional(AwayFolder{folder, "the folder is empty"}) : std::nullopt;
}

} // namespace

std::optional<AwayFolder> away_folder(const std::string& path, const std::string& root) {
    for (std::size_t end = path.find('/', root.size() + 1); end != std::string::npos;
         end = path.find('/', end + 1))
        if (std::optional<AwayFolder> away = look_at(path.substr(0, end)))
            return away;
    return std::nullopt;
}

} // namespace qrtln
