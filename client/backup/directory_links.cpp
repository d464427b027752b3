#include "client/backup/directory_links.h"

#include "client/backup/arguments.h"
#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/domino/database_link.h"

#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <strings.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

constexpr std::string_view link_ending = ".dir";

} // namespace

bool is_directory_link(const std::string& path) {
    std::string_view name = std::string_view(path).substr(path.rfind('/') + 1);
    return name.size() > link_ending.size() &&
           ::strcasecmp(name.data() + name.size() - link_ending.size(), link_ending.data()) == 0;
}

std::string shown_folder(const std::string& link, const std::string& data_directory) {
    std::string relative = path_below(link, data_directory);
    return relative.substr(0, relative.size() - link_ending.size());
}

LinkedDatabases databases_behind(const std::string& link, const NotesIni& ini) {
    LinkedDatabases result;
    std::optional<std::string> content = read_small_file(AT_FDCWD, link, maximal_link_file);
    if (!content)
        return result; // what cannot be read fails as a file
    std::optional<std::string> target = link_target(*content);
    struct stat status {};
    if (!target)
        return result;
    if (::stat(target->c_str(), &status) != 0) {
        if (errno != ENOENT && errno != ENOTDIR)
            result.unknown.emplace_back(*target, "cannot look at it: " + system_error_text(errno));
        return result;
    }
    result.target = *target;
    // The module reaches what lies in the data directory by itself.
    std::string real = real_path(*target).value_or(*target);
    if (is_below(real, real_path(ini.data_directory).value_or(ini.data_directory)))
        return result;
    SelectionScan scan = scan_selection(result.target, {});
    result.databases = std::move(scan.databases);
    result.unknown = std::move(scan.unreachable);
    return result;
}

} // namespace qrtln
