#include "client/domino/database_link.h"

#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/domino/database_names.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>

namespace qrtln {

std::optional<std::string> link_target(const std::string& content) {
    std::string target = content.substr(0, content.find_first_of("\r\n"));
    target.erase(0, target.find_first_not_of(" \t"));
    target.erase(target.find_last_not_of(" \t") + 1);
    if (!target.starts_with('/') || target.find('\0') != std::string::npos)
        return std::nullopt;
    return absolute_path(target);
}

std::optional<std::string> database_link_target(const std::string& path) {
    struct stat status {};
    if (!is_database_name(name_of(path)) || ::stat(path.c_str(), &status) != 0 ||
        !S_ISREG(status.st_mode) || static_cast<std::uint64_t>(status.st_size) > maximal_link_file)
        return std::nullopt;
    std::optional<std::string> real = real_path(path);
    std::optional<std::string> content;
    if (real)
        content = read_small_file(AT_FDCWD, *real, maximal_link_file);
    if (!content || std::any_of(content->begin(), content->end(), [](unsigned char byte) {
            return byte < ' ' && byte != '\t' && byte != '\r' && byte != '\n';
        }))
        return std::nullopt;
    std::optional<std::string> target = link_target(*content);
    return target && is_database_name(name_of(*target)) ? target : std::nullopt;
}

} // namespace qrtln
