#include "client/module/temporary_directory.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/domino/server_user.h"
#include "client/module/control_variables.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <vector>

namespace qrtln {

namespace {

constexpr std::string_view name_prefix = "qrtln-";
constexpr std::string_view kept_prefix = "qrtln-restored-"; // no process id follows "qrtln-"
constexpr std::size_t random_length = 6;                    // of mkdtemp

// The process id in a folder's name "qrtln-PID-XXXXXX", or 0 for another name.
pid_t owner_of(std::string_view name) {
    if (!name.starts_with(name_prefix))
        return 0;
    name.remove_prefix(name_prefix.size());
    pid_t pid = 0;
    auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
    std::string_view rest = name.substr(static_cast<std::size_t>(end - name.data()));
    bool ours =
        error == std::errc() && pid > 0 && rest.size() == random_length + 1 && rest.front() == '-';
    return ours ? pid : 0;
}

// Makes a folder with a random name. Returns its path, or an empty text with errno set.
std::string make_random_folder(const std::string& start) {
    for (;;) {
        std::string path = start + "XXXXXX";
        if (::mkdtemp(path.data()) == nullptr)
            return {};
        // From the last "-" on: what is before that was chosen by somebody.
        if (misread_in_info(path.substr(path.rfind('-'))).empty())
            return path;
        if (::rmdir(path.c_str()) != 0)
            return {};
    }
}

// The folder without symbolic links, or a ClientError when nothing may be placed there.
std::string usable_base(const std::string& base, const std::string& data_directory) {
    std::string shown = for_terminal(base);
    std::optional<std::string> real_base = real_path(base);
    if (!real_base)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot use the temporary directory {}: {}", shown,
                                      system_error_text(errno)),
                          "name a folder with room for the largest database with --tmp-dir");
    std::optional<std::string> real_data = real_path(data_directory);
    if (real_data && is_below(*real_base, *real_data))
        throw ClientError(ExitCode::failed,
                          fmt::format("the temporary directory {} is inside the data directory {}",
                                      shown, for_terminal(data_directory)),
                          "name a folder elsewhere with --tmp-dir");
    if (std::string refused = refused_to_server_user(*real_base, X_OK, data_directory);
        !refused.empty()) {
        std::string user = server_user(data_directory)->name;
        throw ClientError(
            ExitCode::failed,
            fmt::format("the temporary directory {} cannot be reached by {}, who owns the data "
                        "directory and runs the server's library: {} is closed to that user",
                        shown, user, for_terminal(refused)),
            fmt::format("name a folder with --tmp-dir that {} may pass, or `chmod o+x {}`", user,
                        for_terminal(refused)));
    }
    return *real_base;
}

} // namespace

void require_usable_tmp_dir(const std::string& base, const std::string& data_directory) {
    (void)usable_base(base, data_directory);
}

// A run that was killed leaves its folder. It is dead when neither it nor its child holds the lock
// and no process has its number (which covers the moment before a run has taken its lock).
void remove_what_killed_runs_left(const std::string& base, const std::string& data_directory) {
    FileDescriptor folder(::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
        return;
    for (const std::string& name :
         names_in_folder(folder.get()).value_or(std::vector<std::string>())) {
        pid_t owner = owner_of(name);
        if (owner == 0 || ::kill(owner, 0) == 0 || errno != ESRCH)
            continue;
        FileDescriptor leftover(
            ::openat(folder.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat status {};
        if (leftover && ::fstat(leftover.get(), &status) == 0 &&
            is_runs_own(status.st_uid, data_directory) &&
            ::flock(leftover.get(), LOCK_EX | LOCK_NB) == 0)
            remove_tree(folder.get(), name); // what cannot be removed does no harm to this run
    }
}

std::vector<std::string> kept_folders(const std::string& base) {
    std::vector<std::string> folders;
    std::string real_base = real_path(base).value_or("");
    for (const std::string& name : names_in_folder(real_base).value_or(std::vector<std::string>()))
        if (name.starts_with(kept_prefix))
            folders.push_back((real_base == "/" ? "" : real_base) + "/" + name);
    return folders;
}

std::string make_folder_for_copies(const std::string& base, const std::string& data_directory,
                                   const std::string& prefix) {
    std::string real_base = usable_base(base, data_directory);
    std::string path = make_random_folder((real_base == "/" ? "" : real_base) + "/" + prefix);
    if (path.empty())
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot create a folder in the temporary directory {}: {}",
                                      for_terminal(base), system_error_text(errno)),
                          "name a folder with room for the largest database with --tmp-dir");
    int error = give_folder_to_server_user(path, data_directory);
    if (error != 0) {
        ::rmdir(path.c_str());
        throw ClientError(
            ExitCode::failed,
            fmt::format("cannot give the temporary folder {} to the server's user: {}",
                        for_terminal(path), system_error_text(error)),
            "name a folder on a local file system with --tmp-dir");
    }
    return path;
}

TemporaryDirectory::TemporaryDirectory(const std::string& base, const std::string& data_directory) {
    remove_what_killed_runs_left(usable_base(base, data_directory), data_directory);
    std::string path =
        make_folder_for_copies(base, data_directory, fmt::format("{}{}-", name_prefix, ::getpid()));
    m_path = path;
    // Without O_CLOEXEC: the module's process keeps it until it has ended, too.
    m_lock = FileDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
    if (!m_lock || ::flock(m_lock.get(), LOCK_EX | LOCK_NB) != 0) {
        int error = errno;
        remove();
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot lock the temporary folder {}: {}", for_terminal(path),
                                      system_error_text(error)));
    }
}

FileDescriptor TemporaryDirectory::open_file(const std::string& path) const {
    std::string problem;
    if (path == m_path || !is_below(path, m_path)) {
        errno = ENOENT;
        return {};
    }
    // By the open folder: its user can put another one in the place of the path.
    errno = 0;
    FileDescriptor file = SafeFolder("/proc/self/fd/" + std::to_string(m_lock.get()))
                              .open_file(path_below(path, m_path), problem);
    if (!file && errno == 0)
        errno = EINVAL; // no file
    return file;
}

int TemporaryDirectory::remove() {
    if (m_path.empty())
        return 0;
    int error = remove_tree(AT_FDCWD, m_path);
    m_path.clear();
    return error;
}

std::string TemporaryDirectory::keep() {
    std::string kept = std::move(m_path);
    m_path.clear();
    std::size_t name = kept.rfind('/') + 1;
    std::string renamed =
        kept.substr(0, name) + std::string(kept_prefix) + kept.substr(name + name_prefix.size());
    // An empty folder of that name would be replaced: nobody loses anything.
    return ::rename(kept.c_str(), renamed.c_str()) == 0 ? renamed : kept;
}

TemporaryDirectory::~TemporaryDirectory() {
    remove(); // what stays is removed by the next run
}

} // namespace qrtln
