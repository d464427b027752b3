#include "client/file_io.h"

#include "client/permission.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <vector>

namespace qrtln {

void FileDescriptor::reset() {
    if (m_fd >= 0)
        ::close(m_fd); // the file was only read, or its failure is already being reported
    m_fd = -1;
}

int FileDescriptor::close_checked() {
    int fd = std::exchange(m_fd, -1);
    return fd >= 0 && ::close(fd) != 0 && errno != EINTR ? errno : 0;
}

int write_all(int fd, Bytes bytes) {
    while (!bytes.empty()) {
        ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return errno;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
    return 0;
}

ssize_t read_up_to(int fd, std::span<std::byte> buffer) {
    std::size_t filled = 0;
    while (filled < buffer.size()) {
        ssize_t got = ::read(fd, buffer.data() + filled, buffer.size() - filled);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return -errno;
        }
        if (got == 0)
            break;
        filled += static_cast<std::size_t>(got);
    }
    return static_cast<ssize_t>(filled);
}

std::optional<std::string> read_small_file(int directory, const std::string& name,
                                           std::size_t limit) {
    FileDescriptor file(
        ::openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file)
        return std::nullopt;
    struct stat status {};
    if (::fstat(file.get(), &status) != 0)
        return std::nullopt;
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return std::nullopt;
    }
    if (static_cast<std::uint64_t>(status.st_size) > limit) {
        errno = EFBIG;
        return std::nullopt;
    }
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    ssize_t got = read_up_to(file.get(), std::as_writable_bytes(std::span<char>(content)));
    if (got < 0) {
        errno = static_cast<int>(-got);
        return std::nullopt;
    }
    content.resize(static_cast<std::size_t>(got));
    return content;
}

int replace_file(const std::string& path, std::string_view content) {
    std::string temporary = path + ".tmp";
    FileDescriptor file(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    int error = file ? write_all(file.get(), as_bytes(content)) : errno;
    if (file)
        (void)give_to_owner_of_folder(temporary);
    if (error == 0 && ::fsync(file.get()) != 0)
        error = errno;
    if (int close_error = file.close_checked(); error == 0)
        error = close_error;
    if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0)
        error = errno;
    if (error != 0) {
        ::unlink(temporary.c_str());
        return error;
    }
    return flush_directory(AT_FDCWD, folder_of(path));
}

int flush_directory(int directory, const std::string& name) {
    FileDescriptor folder(
        ::openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return folder ? flush_folder(folder.get()) : errno;
}

int flush_folder(int folder) {
    if (::fsync(folder) == 0 || errno == EINVAL || errno == ENOTSUP || errno == ENOSYS ||
        errno == EROFS)
        return 0;
    return errno;
}

std::optional<std::vector<std::string>> names_in_folder(int folder) {
    FileDescriptor again(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::unique_ptr<DIR, int (*)(DIR*)> listing(again ? ::fdopendir(again.get()) : nullptr,
                                                ::closedir);
    if (!listing)
        return std::nullopt;
    (void)again.release();
    std::vector<std::string> names;
    for (errno = 0; const dirent* entry = ::readdir(listing.get()); errno = 0)
        if (std::string_view name = entry->d_name; name != "." && name != "..")
            names.emplace_back(name);
    if (errno != 0)
        return std::nullopt;
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<std::vector<std::string>> names_in_folder(const std::string& path) {
    FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder ? names_in_folder(folder.get()) : std::nullopt;
}

int remove_tree(int directory, const std::string& name) {
    if (::unlinkat(directory, name.c_str(), 0) == 0 || errno == ENOENT)
        return 0;
    FileDescriptor folder(
        ::openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder)
        return errno;
    std::optional<std::vector<std::string>> names = names_in_folder(folder.get());
    if (!names)
        return errno;
    int first_error = 0;
    for (const std::string& entry_name : *names)
        if (int error = remove_tree(folder.get(), entry_name); error != 0 && first_error == 0)
            first_error = error;
    if (::unlinkat(directory, name.c_str(), AT_REMOVEDIR) != 0 && first_error == 0 &&
        errno != ENOENT)
        first_error = errno;
    return first_error;
}

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

std::optional<std::uint64_t> free_bytes(const std::string& path) {
    struct statvfs status {};
    if (::statvfs(path.c_str(), &status) != 0)
        return std::nullopt;
    return static_cast<std::uint64_t>(status.f_bavail) * status.f_frsize;
}

std::optional<std::string> real_path(const std::string& path) {
    std::unique_ptr<char, void (*)(void*)> resolved(::realpath(path.c_str(), nullptr), ::free);
    if (!resolved)
        return std::nullopt;
    return std::string(resolved.get());
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

bool is_same_place(const std::string& one, const std::string& other) {
    struct stat first {};
    struct stat second {};
    if (::stat(one.c_str(), &first) != 0 || ::stat(other.c_str(), &second) != 0)
        return absolute_path(one) == absolute_path(other);
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
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

} // namespace qrtln
