#include "client/base/paths.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sys/stat.h>

namespace qrtln {

std::optional<std::string> real_path(const std::string& path) {
    std::unique_ptr<char, void (*)(void*)> resolved(::realpath(path.c_str(), nullptr), ::free);
    if (!resolved)
        return std::nullopt;
    return std::string(resolved.get());
}

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

std::optional<std::string> real_path_of_new(const std::string& path) {
    std::optional<std::string> real = real_path(path);
    if (real || errno != ENOENT)
        return real;
    real = real_path(folder_of(path));
    if (real)
        *real += (*real == "/" ? "" : "/") + name_of(path);
    return real;
}

bool lies_in(const std::string& path, const std::string& folder) {
    struct stat outer {};
    if (::stat(folder.c_str(), &outer) != 0)
        return false;
    for (std::string step = path;; step = folder_of(step)) {
        struct stat status {};
        if (::stat(step.c_str(), &status) == 0 && status.st_dev == outer.st_dev &&
            status.st_ino == outer.st_ino)
            return true;
        if (step == "/")
            return false;
    }
}

bool is_same_place(const std::string& one, const std::string& other) {
    struct stat first {};
    struct stat second {};
    if (::stat(one.c_str(), &first) != 0 || ::stat(other.c_str(), &second) != 0)
        return absolute_path(one) == absolute_path(other);
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

std::string absolute_path(const std::string& path) {
    std::filesystem::path full = path;
    if (full.is_relative())
        full = std::filesystem::current_path() / full;
    // Only "." and "//" go: removing ".." by text would step past symbolic links.
    std::string clean;
    for (const auto& component : full) {
        if (component.empty() || component == "/" || component == ".")
            continue;
        clean += "/" + component.string();
    }
    return clean.empty() ? "/" : clean;
}

std::string folder_of(const std::string& path) {
    std::size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string name_of(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string path_below(const std::string& path, const std::string& root) {
    return root == "/" ? path.substr(1) : path.substr(std::min(path.size(), root.size() + 1));
}

bool is_below(std::string_view path, std::string_view directory) {
    if (directory == "/")
        return path.starts_with("/");
    return path.starts_with(directory) &&
           (path.size() == directory.size() || path[directory.size()] == '/');
}

std::vector<std::string> steps_to(const std::string& path) {
    std::vector<std::string> steps = {"/"};
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1))
        steps.push_back(path.substr(0, slash));
    if (path != "/")
        steps.push_back(path);
    return steps;
}

// Names that a careful caller never passes; a second line of defence.
bool steps_out(std::string_view relative) {
    if (relative.empty())
        return false;
    if (relative.front() == '/' || relative.back() == '/' ||
        relative.find('\0') != std::string_view::npos)
        return true;
    while (!relative.empty()) {
        std::string_view component = relative.substr(0, relative.find('/'));
        if (component.empty() || component == "." || component == "..")
            return true;
        relative.remove_prefix(std::min(component.size() + 1, relative.size()));
    }
    return false;
}

std::string nearest_existing(std::string path) {
    struct stat status {};
    while (path != "/" && ::stat(path.c_str(), &status) != 0)
        path = folder_of(path);
    return path;
}

} // namespace qrtln
