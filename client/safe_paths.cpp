#include "client/safe_paths.h"

#include "client/error.h"
#include "client/original.h"
#include "client/text.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/openat2.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <sys/xattr.h>

namespace qrtln {

namespace {

// Of the temporary names, before the process id and a number.
constexpr std::string_view part_prefix = ".qrtln-restore-";

constexpr std::size_t maximal_component = 255;
constexpr mode_t restored_bits = 0777;
constexpr std::size_t maximal_attribute = 65536; // of a value, and of the list of names

std::string parent_of(const std::string& relative) {
    std::size_t slash = relative.rfind('/');
    return slash == std::string::npos ? std::string() : relative.substr(0, slash);
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

std::string why(int error, const std::string& path) {
    std::string shown = for_terminal(path);
    if (error == EXDEV || error == ELOOP)
        return shown + " leads out of its folder through a symbolic link";
    if (error == ENOTDIR)
        return "a folder above " + shown + " is a file or a symbolic link";
    return "cannot open " + shown + ": " + system_error_text(error);
}

uid_t owner_id(const ManifestItem& item) {
    const passwd* user = item.owner.empty() ? nullptr : ::getpwnam(item.owner.c_str());
    return user != nullptr ? user->pw_uid : item.uid;
}

// For futimens: the modification time alone.
std::array<timespec, 2> times_of(const ManifestItem& item) {
    constexpr std::int64_t second = 1'000'000'000;
    std::int64_t part = (item.mtime_ns % second + second) % second;
    std::array<timespec, 2> times{};
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>((item.mtime_ns - part) / second);
    times[1].tv_nsec = static_cast<long>(part);
    return times;
}

gid_t group_id(const ManifestItem& item) {
    const group* found = item.group.empty() ? nullptr : ::getgrnam(item.group.c_str());
    return found != nullptr ? found->gr_gid : item.gid;
}

} // namespace

std::string path_problem(const std::string& path, std::size_t limit) {
    if (path.empty() || path.front() != '/')
        return "its path is not absolute";
    if (path.size() >= limit)
        return "its path is longer than the " +
               std::string(limit == module_path_size ? "module" : "system") + " takes";
    if (path.find('\0') != std::string::npos)
        return "its path holds a NUL byte";
    if (path.back() == '/' || steps_out(std::string_view(path).substr(1)))
        return "its path holds \"..\", \".\" or an empty component";
    for (std::size_t start = 1; start < path.size();) {
        std::size_t end = std::min(path.find('/', start), path.size());
        if (end - start > maximal_component)
            return "a name in its path is longer than a file system takes";
        start = end + 1;
    }
    return {};
}

std::string apply_metadata(int fd, const ManifestItem& item) {
    if (!item.has_metadata)
        return {};
    struct stat now {};
    if (::fstat(fd, &now) != 0)
        return "cannot look at it: " + system_error_text(errno);
    std::string problem;
    auto note = [&](const char* doing) {
        if (problem.empty())
            problem = std::string("cannot set its ") + doing + ": " + system_error_text(errno);
    };
    bool root = ::geteuid() == 0;
    uid_t uid = owner_id(item);
    gid_t gid = group_id(item);
    // Others than root may give a file to a group of theirs at most.
    if (now.st_gid != gid && ::fchown(fd, static_cast<uid_t>(-1), gid) != 0 && root)
        note("group");
    if (now.st_uid != uid && root && ::fchown(fd, uid, static_cast<gid_t>(-1)) != 0)
        note("owner");
    if (::fchmod(fd, item.mode & restored_bits) != 0)
        note("mode");
    if (::futimens(fd, times_of(item).data()) != 0)
        note("time");
    return problem;
}

SafeFolder::SafeFolder(const std::string& directory, bool kernel_resolves)
    : m_path(directory), m_folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
      m_kernel_resolves(kernel_resolves) {
    if (!m_folder)
        throw ClientError(ExitCode::failed, "cannot open the folder " + for_terminal(directory) +
                                                ": " + system_error_text(errno));
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
    std::string shown = m_path + "/" + relative;
    if (steps_out(relative)) {
        errno = EINVAL;
        problem = for_terminal(shown) + " is no place below " + for_terminal(m_path);
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
                problem = "cannot flush " + for_terminal(shown) + ": " + system_error_text(error);
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
        problem = why(errno, m_path + "/" + relative);
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
        problem = why(errno, m_path + "/" + relative);
    else if (!S_ISREG(status.st_mode))
        problem = for_terminal(m_path + "/" + relative) + " is " + file_type_name(status.st_mode);
    return problem.empty() ? std::move(file) : FileDescriptor();
}

void remove_parts_of_killed_runs(int folder) {
    for (const std::string& name : names_in_folder(folder).value_or(std::vector<std::string>())) {
        pid_t pid = 0;
        struct stat status {};
        if (!name.starts_with(part_prefix))
            continue;
        const char* number = name.data() + part_prefix.size();
        auto [end, error] = std::from_chars(number, name.data() + name.size(), pid);
        if (error == std::errc() && pid > 0 && *end == '-' && ::kill(pid, 0) != 0 &&
            errno == ESRCH && ::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(status.st_mode) && status.st_uid == ::geteuid())
            (void)::unlinkat(folder, name.c_str(), 0);
    }
}

SafeFile::SafeFile(FileDescriptor folder, std::string name)
    : m_folder(std::move(folder)), m_name(std::move(name)) {}

SafeFile::~SafeFile() {
    if (!m_temporary.empty())
        ::unlinkat(m_folder.get(), m_temporary.c_str(), 0);
}

std::string SafeFile::create() {
    return create_named([this](const std::string& name) {
        m_file =
            FileDescriptor(::openat(m_folder.get(), name.c_str(),
                                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        return static_cast<bool>(m_file);
    });
}

std::string SafeFile::create_link(const std::string& target) {
    m_link = true;
    return create_named([&](const std::string& name) {
        return ::symlinkat(target.c_str(), m_folder.get(), name.c_str()) == 0;
    });
}

std::string SafeFile::create_named(const std::function<bool(const std::string& name)>& make) {
    for (unsigned number = 0;; ++number) {
        // The name of a killed run's file is passed over. No database's ending: nobody opens it.
        std::string name =
            std::string(part_prefix) + std::to_string(::getpid()) + "-" + std::to_string(number);
        if (make(name)) {
            m_temporary = name;
            return {};
        }
        if (errno != EEXIST || number > 1000)
            return "cannot create it: " + system_error_text(errno);
    }
}

std::string SafeFile::write(Bytes bytes) {
    int error = write_all(m_file.get(), bytes);
    return error == 0 ? std::string() : "cannot write it: " + system_error_text(error);
}

// The owner is set already: a change of it would take some away again.
void SafeFile::take_attributes(const ManifestItem& metadata) {
    // By this name no right to read the old file is needed, and no link is followed.
    std::string old = "/proc/self/fd/" + std::to_string(m_folder.get()) + "/" + m_name;
    std::vector<char> names(maximal_attribute);
    ssize_t size = ::llistxattr(old.c_str(), names.data(), names.size());
    if (size < 0 && errno != ENOTSUP)
        m_warnings.push_back("its extended attributes and access list are not kept: " +
                             system_error_text(errno));
    std::vector<char> value(maximal_attribute);
    std::vector<char> own(maximal_attribute);
    std::string_view rest(names.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    for (; !rest.empty(); rest.remove_prefix(std::min(rest.find('\0') + 1, rest.size()))) {
        std::string name(rest.substr(0, rest.find('\0')));
        ssize_t length = ::lgetxattr(old.c_str(), name.c_str(), value.data(), value.size());
        int error = length < 0 ? errno : 0;
        ssize_t has = ::fgetxattr(m_file.get(), name.c_str(), own.data(), own.size());
        bool same = length >= 0 && has == length &&
                    std::equal(own.begin(), own.begin() + has, value.begin());
        if (error == 0 && !same &&
            ::fsetxattr(m_file.get(), name.c_str(), value.data(), static_cast<std::size_t>(length),
                        0) != 0)
            error = errno;
        if (error != 0)
            m_warnings.push_back("its extended attribute " + name +
                                 " is not kept: " + system_error_text(error));
    }
    // An access list brings the old file's mode with it.
    if (metadata.has_metadata && ::fchmod(m_file.get(), metadata.mode & restored_bits) != 0)
        m_warnings.push_back("cannot set its mode: " + system_error_text(errno));
}

// The owner and the time of the link itself, as far as this user and the file system let it have
// them: nothing depends on them.
std::string SafeFile::settle_link(const ManifestItem* metadata) {
    if (metadata == nullptr || !metadata->has_metadata)
        return {};
    if (::geteuid() == 0 && ::fchownat(m_folder.get(), m_temporary.c_str(), owner_id(*metadata),
                                       group_id(*metadata), AT_SYMLINK_NOFOLLOW) != 0)
        return "cannot set its owner: " + system_error_text(errno);
    std::array<timespec, 2> times = times_of(*metadata);
    (void)::utimensat(m_folder.get(), m_temporary.c_str(), times.data(), AT_SYMLINK_NOFOLLOW);
    return {};
}

std::string SafeFile::settle_file(const ManifestItem* metadata, bool exists, nlink_t names) {
    if (metadata != nullptr)
        if (std::string problem = apply_metadata(m_file.get(), *metadata); !problem.empty())
            return problem;
    if (exists && metadata != nullptr)
        take_attributes(*metadata);
    if (exists && names > 1)
        m_warnings.push_back("its " + std::to_string(names - 1) +
                             " other names (hard links) keep the old content");
    if (::fsync(m_file.get()) != 0)
        return "cannot flush it: " + system_error_text(errno);
    if (int error = m_file.close_checked(); error != 0)
        return "cannot close it: " + system_error_text(error);
    return {};
}

std::string SafeFile::commit(const ManifestItem* metadata, bool replace) {
    struct stat status {};
    bool exists = ::fstatat(m_folder.get(), m_name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (!exists && errno != ENOENT)
        return "cannot look at what is there: " + system_error_text(errno);
    if (exists && (m_link ? !S_ISLNK(status.st_mode) : !S_ISREG(status.st_mode)))
        return std::string("in its place is ") + (S_ISLNK(status.st_mode) ? "a symbolic link"
                                                  : S_ISREG(status.st_mode)
                                                      ? "a file"
                                                      : file_type_name(status.st_mode));
    if (exists && !replace)
        return "a file of its name is there already";
    if (std::string problem =
            m_link ? settle_link(metadata) : settle_file(metadata, exists, status.st_nlink);
        !problem.empty())
        return problem;
    int result = ::renameat2(m_folder.get(), m_temporary.c_str(), m_folder.get(), m_name.c_str(),
                             exists ? 0 : RENAME_NOREPLACE);
    // Not every file system knows the flag: then the look above has to do.
    if (result != 0 && !exists && errno == EINVAL)
        result = ::renameat(m_folder.get(), m_temporary.c_str(), m_folder.get(), m_name.c_str());
    if (result != 0)
        return "cannot put it in place: " + system_error_text(errno);
    m_temporary.clear();
    int error = flush_folder(m_folder.get());
    return error == 0 ? std::string() : "cannot flush its folder: " + system_error_text(error);
}

} // namespace qrtln
