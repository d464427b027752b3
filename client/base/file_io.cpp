#include "client/base/file_io.h"

#include "client/base/file_descriptor.h"
#include "client/base/ownership.h"
#include "client/base/paths.h"

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

int replace_file(const std::string& path, std::string_view content, mode_t mode) {
    std::string temporary = path + ".tmp";
    FileDescriptor file(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    int error = file ? write_all(file.get(), as_bytes(content)) : errno;
    if (file)
        (void)give_to_owner_of_folder(temporary);
    if (error == 0 && mode != 0600 && ::fchmod(file.get(), mode) != 0)
        error = errno;
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

const char* file_type_name(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFIFO:
        return "a FIFO";
    case S_IFSOCK:
        return "a socket";
    case S_IFBLK:
        return "a block device";
    case S_IFCHR:
        return "a character device";
    case S_IFDIR:
        return "a folder";
    default:
        return "of an unknown type";
    }
}

} // namespace qrtln
