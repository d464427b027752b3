#include "client/restore/safe_file.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/text.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <linux/openat2.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <sys/xattr.h>

namespace qrtln {

namespace {

// Of the temporary names, before the process id and a number.
constexpr std::string_view part_prefix = ".qrtln-restore-";

constexpr mode_t restored_bits = 0777;
constexpr std::size_t maximal_attribute = 65536; // of a value, and of the list of names

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

std::string apply_metadata(int fd, const ManifestItem& item) {
    if (!item.has_metadata)
        return {};
    struct stat now {};
    if (::fstat(fd, &now) != 0)
        return "cannot look at it: " + system_error_text(errno);
    std::string problem;
    auto note = [&](const char* doing) {
        if (problem.empty())
            problem = fmt::format("cannot set its {}: {}", doing, system_error_text(errno));
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
        std::string name = fmt::format("{}{}-{}", part_prefix, ::getpid(), number);
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
    std::string old = fmt::format("/proc/self/fd/{}/{}", m_folder.get(), m_name);
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
            m_warnings.push_back(fmt::format("its extended attribute {} is not kept: {}", name,
                                             system_error_text(error)));
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
        m_warnings.push_back(
            fmt::format("its {} other names (hard links) keep the old content", names - 1));
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
