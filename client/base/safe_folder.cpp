#include "client/base/safe_folder.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/text.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qrtln {

namespace {

std::string parent_of(const std::string& relative) {
    std::size_t slash = relative.rfind('/');
    return slash == std::string::npos ? std::string() : relative.substr(0, slash);
}

std::string why(int error, const std::string& path) {
    std::string shown = for_terminal(path);
    if (error == EXDEV || error == ELOOP)
        return shown + " leads out of its folder through a symbolic link";
    if (error == ENOTDIR)
        return fmt::format("a folder above {} is a file or a symbolic link", shown);
    return fmt::format("cannot open {}: {}", shown, system_error_text(error));
}

} // namespace

SafeFolder::SafeFolder(const std::string& directory, bool kernel_resolves)
    : m_path(directory), m_folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
      m_kernel_resolves(kernel_resolves) {
    if (!m_folder)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot open the folder {}: {}", for_terminal(directory),
                                      system_error_text(errno)));
}

FileDescriptor SafeFolder::open_below(const std::string& relative, int flags) const {
    std::string name = relative.empty() ? "." : relative;
    if (m_kernel_resolves) {
        open_how how{};
        how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
        long fd = ::syscall(SYS_openat2, m_folder.get(), name.c_str(), &how, sizeof how);
        // A sandbox that does not know the call refuses it with EPERM.
        if (fd >= 0 || (errno != ENOSYS && errno != EPERM))
            return FileDescriptor(static_cast<int>(fd));
    }
    FileDescriptor folder(::openat(m_folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::size_t start = 0;
    while (folder && relative.find('/', start) != std::string::npos) {
        std::size_t end = relative.find('/', start);
        folder = FileDescriptor(::openat(folder.get(), relative.substr(start, end - start).c_str(),
                                         O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        start = end + 1;
    }
    if (!folder)
        return folder;
    std::string last = relative.empty() ? "." : relative.substr(start);
    return FileDescriptor(::openat(folder.get(), last.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
}

FileDescriptor SafeFolder::open_folder(const std::string& relative, std::string& problem,
                                       const FolderCreated& created) const {
    problem.clear();
    std::string shown = fmt::format("{}/{}", m_path, relative);
    if (steps_out(relative)) {
        errno = EINVAL;
        problem = fmt::format("{} is no place below {}", for_terminal(shown), for_terminal(m_path));
        return {};
    }
    constexpr int flags = O_RDONLY | O_DIRECTORY;
    FileDescriptor folder = open_below(relative, flags);
    if (!folder && errno == ENOENT && created) {
        std::string above = parent_of(relative);
        FileDescriptor parent = open_folder(above, problem, created);
        if (!parent)
            return {};
        bool is_new = ::mkdirat(parent.get(), name_of(relative).c_str(), 0700) == 0;
        if (is_new || errno == EEXIST)
            folder = open_below(relative, flags);
        if (folder && is_new) {
            created(folder.get(), relative);
            if (int error = flush_folder(parent.get()); error != 0) {
                problem = fmt::format("cannot flush {}: {}", for_terminal(shown),
                                      system_error_text(error));
                return {};
            }
        }
    }
    if (!folder) {
        int error = errno;
        problem = why(error, shown);
        errno = error;
    }
    return folder;
}

std::optional<struct stat> SafeFolder::look_at(const std::string& relative,
                                               std::string& problem) const {
    FileDescriptor folder = open_folder(parent_of(relative), problem);
    if (!folder) {
        if (errno == ENOENT)
            problem.clear();
        return std::nullopt;
    }
    struct stat status {};
    std::string name = relative.empty() ? "." : name_of(relative);
    if (::fstatat(folder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        return status;
    if (errno != ENOENT)
        problem = why(errno, fmt::format("{}/{}", m_path, relative));
    return std::nullopt;
}

FileDescriptor SafeFolder::open_file(const std::string& relative, std::string& problem) const {
    FileDescriptor folder = open_folder(parent_of(relative), problem);
    if (!folder)
        return {};
    FileDescriptor file(::openat(folder.get(), name_of(relative).c_str(),
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0)
        problem = why(errno, fmt::format("{}/{}", m_path, relative));
    else if (!S_ISREG(status.st_mode))
        problem = fmt::format("{} is {}", for_terminal(fmt::format("{}/{}", m_path, relative)),
                              file_type_name(status.st_mode));
    return problem.empty() ? std::move(file) : FileDescriptor();
}

} // namespace qrtln
