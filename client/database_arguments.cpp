#include "client/database_arguments.h"

#include "client/error.h"
#include "client/file_io.h"
#include "client/interrupt.h"
#include "client/module_host.h"
#include "client/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <dirent.h>
#include <fnmatch.h>
#include <memory>
#include <optional>
#include <string_view>
#include <strings.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

constexpr std::string_view value_prefix = "QRTLN:";
constexpr std::string_view pattern_characters = "?[\\";

// What the module selects from a folder: databases, and the files that belong to a server.
constexpr std::array selected_extensions = {".nsf", ".ns2", ".ns3", ".ns4", ".ns5", ".ntf", ".ncf",
                                            ".box", ".njf", ".id",  ".dsk", ".dic", ".cfg", ".nlo"};
constexpr std::array database_extensions = {".nsf", ".ns2", ".ns3", ".ns4", ".ntf", ".box"};

template <typename Extensions>
bool has_extension(std::string_view name, const Extensions& extensions) {
    return std::any_of(extensions.begin(), extensions.end(), [&](std::string_view extension) {
        return name.size() > extension.size() &&
               ::strncasecmp(name.data() + name.size() - extension.size(), extension.data(),
                             extension.size()) == 0;
    });
}

std::string_view last_component(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

[[noreturn]] void refuse(const std::string& given, const std::string& reason,
                         const std::string& hint = {}) {
    throw ClientError(ExitCode::failed, "cannot back up '" + for_terminal(given) + "': " + reason,
                      hint);
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
        refuse(given, system_error_text(errno),
               "relative names are below the data directory " + for_terminal(data_directory));
    std::optional<std::string> real_data = real_path(data_directory);
    if (!real_data || !is_below(*real, *real_data))
        refuse(given, "it is not below the data directory " + for_terminal(data_directory),
               "the server's library can only copy databases of the server's data directory");
    return data_directory + real->substr(*real_data == "/" ? 0 : real_data->size());
}

bool folder_has_match(const std::string& path) {
    std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(path.c_str()), ::closedir);
    if (!listing)
        return false;
    while (const dirent* entry = ::readdir(listing.get()))
        if (::fnmatch("*.*", entry->d_name, FNM_PERIOD) == 0)
            return true;
    return false;
}

DatabaseArgument resolve(const std::string& given, const std::string& data_directory) {
    if (given.empty())
        refuse(given, "an empty name names no database");
    if (given.find('*') != std::string::npos)
        refuse(given, "a name with \"*\" cannot be passed to the module",
               "name the databases, or the folder that they are in");
    DatabaseArgument argument;
    argument.given = given;
    argument.path = below_data_directory(given, data_directory);
    if (argument.path.find('*') != std::string::npos)
        refuse(given, "the path holds a \"*\", which cannot be passed to the module");
    struct stat status {};
    if (::stat(argument.path.c_str(), &status) != 0)
        refuse(given, system_error_text(errno) + " (" + for_terminal(argument.path) + ")",
               "relative names are below the data directory " + for_terminal(data_directory));
    argument.directory = S_ISDIR(status.st_mode);
    std::string escaped = escape_last_component(argument.path);
    if (argument.directory && escaped != argument.path) {
        // A folder's name is taken literally only when a pattern follows it.
        if (!folder_has_match(argument.path))
            refuse(given,
                   "the folder holds no name with a dot in it, and its own name has "
                   "characters of a pattern",
                   "name the folders below it");
        escaped = argument.path + "/*.*";
    }
    argument.value = std::string(value_prefix) + escaped;
    if (argument.value.size() >= module_path_size)
        refuse(given, "the path is longer than the module takes (" +
                          std::to_string(module_path_size - 1 - value_prefix.size()) + " bytes)");
    return argument;
}

class Scanner {
  public:
    SelectionScan scan;

    void file(const std::string& path, const struct stat& status) {
        std::string_view name = last_component(path);
        if (name.starts_with('.') || !has_extension(name, selected_extensions))
            return;
        if (path.size() >= module_path_size) {
            scan.unreachable.emplace_back(path, "the path is longer than the module takes");
            return;
        }
        if (!S_ISREG(status.st_mode) || !has_extension(name, database_extensions))
            return;
        ++scan.databases;
        auto size = static_cast<std::uint64_t>(status.st_size);
        if (size > scan.largest) {
            scan.largest = size;
            scan.largest_path = path;
        }
    }

    void folder(const std::string& path, const struct stat& status) {
        throw_if_interrupted();
        // A link to a folder that is being walked would never end.
        std::pair<dev_t, ino_t> identity(status.st_dev, status.st_ino);
        if (std::find(m_ancestors.begin(), m_ancestors.end(), identity) != m_ancestors.end())
            return;
        std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(path.c_str()), ::closedir);
        if (!listing) {
            // Of a file system's own folder nobody expects databases.
            if (errno != ENOENT && last_component(path) != "lost+found")
                scan.unreachable.emplace_back(path, "the folder cannot be read, nothing below it "
                                                    "was saved: " +
                                                        system_error_text(errno));
            return;
        }
        m_ancestors.push_back(identity);
        std::vector<std::string> names;
        while (const dirent* entry = ::readdir(listing.get())) {
            std::string_view name = entry->d_name;
            if (name != "." && name != "..")
                names.emplace_back(name);
        }
        listing.reset(); // one open folder at a time, however deep the tree
        for (const std::string& name : names) {
            std::string child = path + "/" + name;
            struct stat child_status {};
            if (::stat(child.c_str(), &child_status) != 0)
                continue; // a broken link or a file that went: the run itself tells
            if (S_ISDIR(child_status.st_mode))
                folder(child, child_status);
            else
                file(child, child_status);
        }
        m_ancestors.pop_back();
    }

  private:
    std::vector<std::pair<dev_t, ino_t>> m_ancestors;
};

} // namespace

std::string escape_last_component(const std::string& path) {
    std::size_t start = path.rfind('/') + 1;
    std::string escaped = path.substr(0, start);
    for (char character : path.substr(start)) {
        if (pattern_characters.find(character) != std::string_view::npos)
            escaped += '\\';
        escaped += character;
    }
    return escaped;
}

bool is_database_name(const std::string& name) {
    return has_extension(name, database_extensions);
}

std::vector<DatabaseArgument> resolve_database_arguments(const std::vector<std::string>& given,
                                                         const std::string& data_directory) {
    std::vector<DatabaseArgument> resolved;
    for (const std::string& text : given)
        resolved.push_back(resolve(text, data_directory));
    std::vector<DatabaseArgument> kept;
    for (std::size_t i = 0; i < resolved.size(); ++i) {
        bool covered = false;
        for (std::size_t j = 0; j < resolved.size() && !covered; ++j) {
            if (i == j)
                continue;
            if (resolved[j].path == resolved[i].path)
                covered = j < i;
            else
                covered = resolved[j].directory && is_below(resolved[i].path, resolved[j].path);
        }
        if (!covered)
            kept.push_back(resolved[i]);
    }
    return kept;
}

SelectionScan scan_selection(const std::string& data_directory,
                             const std::vector<DatabaseArgument>& arguments) {
    Scanner scanner;
    std::vector<std::string> starts;
    if (arguments.empty())
        starts.push_back(data_directory);
    for (const DatabaseArgument& argument : arguments)
        starts.push_back(argument.path);
    for (const std::string& start : starts) {
        struct stat status {};
        if (::stat(start.c_str(), &status) != 0)
            continue;
        if (S_ISDIR(status.st_mode))
            scanner.folder(start, status);
        else
            scanner.file(start, status);
    }
    return std::move(scanner.scan);
}

} // namespace qrtln
