#include "client/domino/server_user.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/ownership.h"
#include "client/base/paths.h"
#include "client/base/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <grp.h>
#include <iterator>
#include <linux/capability.h>
#include <map>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <vector>

namespace qrtln {

namespace {

constexpr uid_t root = 0;
// What of the environment decides what a command does; sudo passes none of it on.
constexpr std::array passed_variables = {"Notes_ExecDirectory", "QRTLN_MODULE", "QRTLN_SERVER",
                                         "QRTLN_STORE", "TZ"};

ServerUser user_of(const struct stat& directory) {
    ServerUser user{directory.st_uid, directory.st_gid, std::to_string(directory.st_uid), "/",
                    false};
    if (const passwd* entry = ::getpwuid(directory.st_uid); entry != nullptr)
        user = {entry->pw_uid, entry->pw_gid, entry->pw_name, entry->pw_dir, true};
    return user;
}

bool has_capabilities() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
    if (::syscall(SYS_capget, &header, sets.data()) != 0)
        return true;
    return (sets[0].permitted | sets[1].permitted) != 0;
}

bool is_for_good(const ServerUser& user) {
    std::array<uid_t, 3> users{};
    std::array<gid_t, 3> groups{};
    return ::getresuid(&users[0], &users[1], &users[2]) == 0 &&
           ::getresgid(&groups[0], &groups[1], &groups[2]) == 0 &&
           users == std::array{user.uid, user.uid, user.uid} &&
           groups == std::array{user.gid, user.gid, user.gid} && !has_capabilities() &&
           ::setuid(root) != 0 && ::seteuid(root) != 0;
}

std::string for_shell(const std::string& word) {
    constexpr const char* plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                  "0123456789@%+=:,./_-";
    if (!word.empty() && word.find_first_not_of(plain) == std::string::npos)
        return word;
    std::string quoted = "'";
    for (char letter : word)
        quoted += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    return quoted + "'";
}

// The command line of this process, to be run by another user.
std::string command_as(uid_t user) {
    const passwd* entry = ::getpwuid(user);
    std::string command = "sudo -u " + (entry != nullptr ? for_shell(entry->pw_name)
                                                         : for_shell("#" + user_text(user)));
    std::string variables;
    for (const char* name : passed_variables)
        if (const char* value = std::getenv(name); value != nullptr)
            variables += " " + for_shell(fmt::format("{}={}", name, value));
    if (!variables.empty())
        command += " env" + variables;
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    for (std::string word; std::getline(file, word, '\0');)
        command += " " + for_shell(word);
    return for_terminal(command);
}

[[noreturn]] void refuse(const std::string& path, uid_t owner) {
    std::string name = user_text(owner);
    throw ClientError(
        ExitCode::no_permission,
        fmt::format("{} belongs to {}, and this is run by {}: as another user than its own the "
                    "server's library may fail, or make files that the server cannot write",
                    for_terminal(path), name, user_text(::geteuid())),
        fmt::format("run `{}`, or the same as root, which becomes {} for this by itself; "
                    "--as-other-user runs it as {}",
                    command_as(owner), name, user_text(::geteuid())));
}

} // namespace

std::optional<ServerUser> server_user(const std::string& data_directory) {
    static std::map<std::string, ServerUser> known;
    if (::geteuid() != root)
        return std::nullopt;
    if (auto found = known.find(data_directory); found != known.end())
        return found->second;
    struct stat status {};
    if (::stat(data_directory.c_str(), &status) != 0 || status.st_uid == root)
        return std::nullopt;
    return known.emplace(data_directory, user_of(status)).first->second;
}

std::string become(const ServerUser& user) {
    auto failure = [&](const std::string& why) {
        return fmt::format("this process cannot become {}, the owner of the data directory: {}",
                           for_terminal(user.name), why);
    };
    if (::setenv("HOME", user.home.c_str(), 1) != 0 ||
        ::setenv("USER", user.name.c_str(), 1) != 0 ||
        ::setenv("LOGNAME", user.name.c_str(), 1) != 0)
        return failure(system_error_text(errno));
    // The user last: after that nothing may be changed any more.
    if ((user.has_entry ? ::initgroups(user.name.c_str(), user.gid) : ::setgroups(1, &user.gid)) !=
            0 ||
        ::setresgid(user.gid, user.gid, user.gid) != 0 ||
        ::setresuid(user.uid, user.uid, user.uid) != 0)
        return failure(system_error_text(errno));
    return is_for_good(user) ? "" : failure("it has rights of root still");
}

void require_server_user(const std::string& data_directory) {
    struct stat status {};
    const uid_t user = ::geteuid();
    if (user != root && ::stat(data_directory.c_str(), &status) == 0 && status.st_uid != user)
        refuse("the data directory " + data_directory, status.st_uid);
}

void require_readable_notes_ini(const std::string& notes_ini) {
    if (::geteuid() == root || ::faccessat(AT_FDCWD, notes_ini.c_str(), R_OK, AT_EACCESS) == 0 ||
        errno != EACCES)
        return;
    struct stat deepest {};
    std::string reached;
    for (const std::string& step : steps_to(absolute_path(notes_ini))) {
        struct stat status {};
        if (::lstat(step.c_str(), &status) != 0)
            break;
        deepest = status;
        reached = step;
    }
    if (deepest.st_uid != ::geteuid())
        refuse(reached, deepest.st_uid);
}

std::string refused_to_server_user(const std::string& path, int rights,
                                   const std::string& data_directory) {
    std::optional<ServerUser> user = server_user(data_directory);
    if (!user)
        return {};
    const std::vector<std::string> steps = steps_to(absolute_path(path));
    // Access lists and what a file system itself decides are only known to who tries.
    pid_t child = ::fork();
    if (child == 0) {
        if (!become(*user).empty())
            ::_exit(0); // the module's process tells of it
        for (std::size_t i = 0; i < steps.size(); ++i)
            if (::access(steps[i].c_str(), i + 1 < steps.size() ? X_OK : rights) != 0 &&
                errno != ENOENT)
                ::_exit(static_cast<int>(std::min<std::size_t>(i + 1, 255)));
        ::_exit(0);
    }
    int status = 0;
    while (child > 0 && ::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    const int refused = child > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : 0;
    return refused == 0 ? "" : steps[static_cast<std::size_t>(refused) - 1];
}

int give_to_server_user(int fd, const std::string& data_directory) {
    std::optional<ServerUser> user = server_user(data_directory);
    struct stat status {};
    if (!user)
        return 0;
    if (::fstat(fd, &status) != 0)
        return errno;
    // Another name of it may be a file that the user must not have.
    bool roots_alone = status.st_uid == root && (S_ISDIR(status.st_mode) || status.st_nlink == 1);
    return !roots_alone || ::fchown(fd, user->uid, user->gid) == 0 ? 0 : errno;
}

int give_folder_to_server_user(const std::string& path, const std::string& data_directory) {
    FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return folder ? give_to_server_user(folder.get(), data_directory) : errno;
}

int give_tree_to_server_user(const std::string& path, const std::string& data_directory) {
    std::optional<ServerUser> user = server_user(data_directory);
    if (!user)
        return 0;
    FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!folder || ::fstat(folder.get(), &status) != 0)
        return errno;
    if (status.st_uid != root || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        return 0;
    std::error_code error;
    // The folder itself last: until then nobody but root gets to what is in it.
    for (std::filesystem::recursive_directory_iterator entry(path, error), end;
         !error && entry != end; entry.increment(error))
        if (::lchown(entry->path().c_str(), user->uid, user->gid) != 0)
            return errno;
    return error ? error.value() : give_to_server_user(folder.get(), data_directory);
}

bool is_runs_own(uid_t owner, const std::string& data_directory) {
    if (owner == ::geteuid())
        return true;
    std::optional<ServerUser> user = server_user(data_directory);
    return user && user->uid == owner;
}

} // namespace qrtln
