#include "client/away_folder.h"

#include "client/error.h"

#include <dirent.h>
#include <memory>
#include <string_view>

namespace qrtln {

namespace {

std::optional<AwayFolder> look_at(const std::string& folder) {
    std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(folder.c_str()), ::closedir);
    if (!listing && (errno == ENOENT || errno == ENOTDIR))
        return AwayFolder{folder, "the folder is missing"};
    while (listing) {
        errno = 0;
        const dirent* entry = ::readdir(listing.get());
        if (entry == nullptr)
            break;
        std::string_view name = entry->d_name;
        if (name != "." && name != ".." && name != "lost+found") // a new file system's own
            return std::nullopt;
    }
    if (errno != 0)
        return AwayFolder{folder, "the folder cannot be read: " + system_error_text(errno), false};
    return AwayFolder{folder, "the folder is empty"};
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
