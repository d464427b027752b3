#include "client/backup/arguments.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/interrupt.h"
#include "client/base/limits.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/database_link.h"
#include "client/domino/database_names.h"
#include "client/module/control_variables.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <dirent.h>
#include <fmt/format.h>
#include <fnmatch.h>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <strings.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

std::string_view last_component(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

[[noreturn]] void refuse_argument(const std::string& given, const std::string& reason,
                                  const std::string& hint = {}) {
    throw ClientError(ExitCode::failed,
                      fmt::format("cannot back up '{}': {}", for_terminal(given), reason), hint);
}

// The module cuts the data directory's text off each path, so a path must begin with that text. One
// that reaches the same place another way is rewritten to begin with it.
std::string below_data_directory(const std::string& given, const std::string& data_directory) {
    std::string path = absolute_path(given.starts_with('/') ? given : data_directory + "/" + given);
    bool steps_up = (path + "/").find("/../") != std::string::npos;
    if (!steps_up && is_below(path, data_directory))
        return path;
    std::optional<std::string> real = real_path(path);
    if (!real)
        refuse_argument(given, system_error_text(errno),
                        "relative names are below the data directory " +
                            for_terminal(data_directory));
    std::optional<std::string> real_data = real_path(data_directory);
    if (!real_data || !is_below(*real, *real_data))
        refuse_argument(
            given, "it is not below the data directory " + for_terminal(data_directory),
            "the server's library can only copy databases of the server's data directory");
    return data_directory + real->substr(*real_data == "/" ? 0 : real_data->size());
}

bool folder_has_match(const std::string& path) {
    std::optional<std::vector<std::string>> names = names_in_folder(path);
    return names && std::any_of(names->begin(), names->end(), [](const std::string& name) {
               return ::fnmatch("*.*", name.c_str(), FNM_PERIOD) == 0;
           });
}

DatabaseArgument resolve(const std::string& given, const std::string& data_directory) {
    if (given.empty())
        refuse_argument(given, "an empty name names no database");
    DatabaseArgument argument;
    argument.given = given;
    argument.path = below_data_directory(given, data_directory);
    struct stat status {};
    if (::stat(argument.path.c_str(), &status) != 0)
        refuse_argument(
            given, fmt::format("{} ({})", system_error_text(errno), for_terminal(argument.path)),
            given.find('*') != std::string::npos
                ? "names are taken as they are: name the databases, or the folder they are in"
                : "relative names are below the data directory " + for_terminal(data_directory));
    argument.directory = S_ISDIR(status.st_mode);
    argument.value = database_value(argument.path);
    if (argument.directory && is_pattern(argument.path)) {
        // A folder's name is taken literally only when a pattern follows it.
        if (!folder_has_match(argument.path))
            refuse_argument(given,
                            "the folder holds no name with a dot in it, and its own name has "
                            "characters of a pattern",
                            "name the folders below it");
        argument.value = folder_content_value(argument.path);
    }
    if (argument.value.size() >= module_path_size)
        refuse_argument(given, fmt::format("the path is longer than the module takes ({} bytes)",
                                           maximal_database_path()));
    return argument;
}

class Scanner {
  public:
    SelectionScan scan;

    // Begins at a file or folder; one that does not exist holds nothing.
    void start(const std::string& path) {
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) {
            if (errno != ENOENT)
                leave_out(path, "cannot look at it: " + system_error_text(errno));
            return;
        }
        if (!S_ISDIR(status.st_mode)) {
            file(path, status);
            return;
        }
        // As in the module a link to any folder above is one that never ends.
        m_ancestors.clear();
        struct stat above {};
        for (std::string folder_above = path; folder_above != "/";) {
            folder_above = folder_of(folder_above);
            if (::stat(folder_above.c_str(), &above) == 0)
                m_ancestors.emplace_back(above.st_dev, above.st_ino);
        }
        folder(path, status);
    }

  private:
    struct Entry {
        std::string name;
        bool may_be_folder;
    };

    void leave_out(const std::string& path, const std::string& reason) {
        scan.unreachable.emplace_back(path, reason);
    }

    void file(const std::string& path, const struct stat& status) {
        std::string_view name = last_component(path);
        if (path.size() >= module_path_size) {
            leave_out(path, "the path is longer than the module takes");
            return;
        }
        if (!S_ISREG(status.st_mode) || !is_database_name(name) || database_link_target(path))
            return;
        scan.databases.push_back(path);
        auto size = static_cast<std::uint64_t>(status.st_size);
        if (size > scan.largest) {
            scan.largest = size;
            scan.largest_path = path;
        }
    }

    std::vector<Entry> entries_of(const std::string& path) {
        std::vector<Entry> entries;
        std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(path.c_str()), ::closedir);
        if (!listing) {
            // Of a file system's own folder nobody expects databases.
            if (errno != ENOENT && last_component(path) != "lost+found")
                leave_out(path, "the folder cannot be read, nothing below it was saved: " +
                                    system_error_text(errno));
            return entries;
        }
        for (;;) {
            errno = 0;
            const dirent* entry = ::readdir(listing.get());
            if (entry == nullptr)
                break;
            std::string_view name = entry->d_name;
            bool may_be_folder =
                entry->d_type == DT_DIR || entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN;
            // Most files are nobody's business here: those are not even looked at.
            if (name != "." && name != ".." && (may_be_folder || is_selected_name(name)))
                entries.push_back({std::string(name), may_be_folder});
        }
        if (errno != 0)
            leave_out(path, "the folder could not be read to its end: " + system_error_text(errno));
        return entries;
    }

    void entry(const std::string& path, const Entry& entry) {
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) {
            // Broken and endless links lead nowhere, and a file that cannot be looked at fails when
            // the module hands it out. Of a folder nobody else would tell.
            if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP &&
                (entry.may_be_folder || errno == ENAMETOOLONG))
                leave_out(path, "cannot look at it, nothing below it was saved: " +
                                    system_error_text(errno));
            return;
        }
        if (S_ISDIR(status.st_mode)) {
            folder(path, status);
            return;
        }
        if (!is_selected_name(entry.name))
            return;
        if (!entry.name.starts_with('.'))
            file(path, status);
        else if (S_ISREG(status.st_mode) && is_database_name(entry.name))
            leave_out(path, "its name begins with a dot: the module takes such a database only "
                            "when it is named as DATABASE");
    }

    void folder(const std::string& path, const struct stat& status) {
        throw_if_interrupted();
        // A link to a folder that is being walked would never end.
        std::pair<dev_t, ino_t> identity(status.st_dev, status.st_ino);
        if (std::find(m_ancestors.begin(), m_ancestors.end(), identity) != m_ancestors.end())
            return;
        m_ancestors.push_back(identity);
        // Read whole first: one open folder at a time, however deep the tree.
        for (const Entry& found : entries_of(path))
            entry(path + "/" + found.name, found);
        m_ancestors.pop_back();
    }

    std::vector<std::pair<dev_t, ino_t>> m_ancestors;
};

} // namespace

std::vector<DatabaseArgument> resolve_database_arguments(const std::vector<std::string>& given,
                                                         const std::string& data_directory) {
    std::vector<DatabaseArgument> resolved;
    resolved.reserve(given.size());
    for (const std::string& text : given)
        resolved.push_back(resolve(text, data_directory));
    std::map<std::string, const DatabaseArgument*> first; // of each path
    for (const DatabaseArgument& argument : resolved)
        first.try_emplace(argument.path, &argument);
    std::vector<DatabaseArgument> kept;
    for (const DatabaseArgument& argument : resolved) {
        bool covered = first.at(argument.path) != &argument;
        for (std::string above = argument.path; !covered && above != "/";) {
            above = folder_of(above);
            auto found = first.find(above);
            covered = found != first.end() && found->second->directory;
        }
        if (!covered)
            kept.push_back(argument);
    }
    return kept;
}

SelectionScan scan_selection(const std::string& data_directory,
                             const std::vector<DatabaseArgument>& arguments) {
    Scanner scanner;
    if (arguments.empty())
        scanner.start(data_directory);
    for (const DatabaseArgument& argument : arguments)
        scanner.start(argument.path);
    return std::move(scanner.scan);
}

} // namespace qrtln
