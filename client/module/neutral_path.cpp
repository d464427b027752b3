#include "client/module/neutral_path.h"

#include "client/base/error.h"
#include "client/base/limits.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/module/control_variables.h"

#include <array>
#include <cerrno>
#include <fmt/format.h>
#include <sys/stat.h>
#include <vector>

namespace qrtln {

namespace {

constexpr std::size_t room_for_options = 32; // beside the path in INFO
constexpr const char* link_name = "/to";

std::vector<std::string> places_for_links() {
    return {"/tmp", "/var/tmp", "/run/user/" + std::to_string(::geteuid()), "/dev/shm"};
}

bool is_misread(const std::string& path, const std::string& data_directory) {
    return !misread_in_info(path).empty() || path.starts_with(data_directory) ||
           path.size() + room_for_options >= module_path_size;
}

// Others must not be able to put another folder in the place of the private one.
bool keeps_names(const std::string& place) {
    struct stat status {};
    return ::stat(place.c_str(), &status) == 0 &&
           ((status.st_mode & S_IWOTH) == 0 || (status.st_mode & S_ISVTX) != 0);
}

} // namespace

NeutralPath::NeutralPath(const std::string& folder, const std::string& data_directory)
    : m_folder(folder), m_path(folder) {
    if (folder.empty())
        return;
    for (const std::string& place : places_for_links())
        remove_what_killed_runs_left(place, data_directory);
    if (!is_misread(folder, data_directory))
        return;
    std::string problem;
    for (const std::string& place : places_for_links()) {
        if (!keeps_names(place))
            continue;
        try {
            m_private.emplace(place, data_directory);
        } catch (const ClientError& failure) {
            problem = failure.what();
            continue;
        }
        m_path = m_private->path() + link_name;
        struct stat status {};
        if (is_misread(m_path, data_directory))
            problem = "the module would misread " + m_path;
        // The folder may not be there yet; links may be forbidden on this file system.
        else if (::symlink(folder.c_str(), m_path.c_str()) == 0 &&
                 (::stat(m_path.c_str(), &status) == 0 || errno == ENOENT))
            return;
        else
            problem = fmt::format("{}: {}", m_path, system_error_text(errno));
        m_private.reset();
    }
    throw ClientError(
        ExitCode::failed,
        fmt::format(
            "the module would misread the path {}, and no private link to it can be made: {}",
            for_terminal(folder), for_terminal(problem)),
        "make /tmp or /var/tmp writable for this user, or name a folder without -o, "
        "-R, deld and chgd in its path");
}

std::string NeutralPath::for_module(const std::string& path) const {
    if (!m_private || !is_below(path, m_folder))
        return path;
    return m_path + path.substr(m_folder.size());
}

std::string NeutralPath::in_text(std::string text) const {
    if (!m_private)
        return text;
    for (std::size_t at = text.find(m_path); at != std::string::npos;
         at = text.find(m_path, at + m_folder.size()))
        text.replace(at, m_path.size(), m_folder);
    return text;
}

} // namespace qrtln
