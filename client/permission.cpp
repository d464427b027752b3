#include "client/permission.h"

#include "client/error.h"
#include "client/file_io.h"
#include "client/text.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <vector>

namespace qrtln {

namespace {

// A folder that is a store, or one of --state. A lock alone is in many a folder of the system.
bool is_root_of_store(const std::string& folder) {
    return exists(folder + "/store.json") ||
           (exists(folder + "/lock") && exists(folder + "/runtime"));
}

bool may(const std::string& path, int rights) {
    return ::faccessat(AT_FDCWD, path.c_str(), rights, AT_EACCESS) == 0 ||
           (errno != EACCES && errno != EPERM);
}

// The file, or the folder above it, that keeps this user from `path`.
std::string culprit_of(const std::string& path, bool writes) {
    const int change = writes ? W_OK : 0;
    std::string last = "/";
    for (const std::string& step : steps_to(path)) {
        struct stat status {};
        if (::lstat(step.c_str(), &status) != 0)
            return last;
        bool folder = S_ISDIR(status.st_mode);
        int rights = step == path                        ? R_OK | change | (folder ? X_OK : 0)
                     : writes && step == folder_of(path) ? X_OK | W_OK
                                                         : X_OK;
        if (!S_ISLNK(status.st_mode) && !may(step, rights))
            return step;
        last = step;
    }
    return last;
}

} // namespace

std::vector<std::string> steps_to(const std::string& path) {
    std::vector<std::string> steps = {"/"};
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1))
        steps.push_back(path.substr(0, slash));
    if (path != "/")
        steps.push_back(path);
    return steps;
}

std::string user_text(uid_t user) {
    const passwd* entry = ::getpwuid(user);
    return entry != nullptr ? entry->pw_name : std::to_string(user);
}

void throw_if_no_permission(const std::string& doing, const std::string& path, int error,
                            bool writes) {
    if (error != EACCES && error != EPERM)
        return;
    std::string culprit = culprit_of(path, writes);
    std::string root; // of the store
    for (const std::string& step : steps_to(path))
        if (is_root_of_store(step))
            root = step; // the innermost: a hint must not give away more
    struct stat denied {};
    struct stat store {};
    bool known = ::lstat(culprit.c_str(), &denied) == 0;
    bool above = root.empty() || !is_below(culprit, root); // the store itself is out of reach
    if (above)
        root = culprit;
    if (::stat(root.c_str(), &store) != 0)
        store = denied;
    const uid_t user = ::geteuid();
    std::string who = user_text(user);
    std::string owner = user_text(denied.st_uid);
    std::string store_owner = user_text(store.st_uid);
    std::string shown = for_terminal(root);
    std::string text =
        "cannot " + doing + ", " + for_terminal(path) + ": " + system_error_text(error);
    if (known)
        text +=
            (culprit == path ? ": it belongs to " : ": " + for_terminal(culprit) + " belongs to ") +
            owner + ", and this is run by " + who;
    std::string hint;
    if (known && denied.st_uid == user)
        hint = "`chmod -R u+rwX " + shown + "` gives its owner the right";
    else if (above && path != culprit)
        hint = "run it as a user that may pass this folder";
    else if (store.st_uid == user || denied.st_uid != store.st_uid)
        hint = "as root: `chown -R " + store_owner + " " + shown + "`" +
               (store.st_uid == user ? std::string() : ", then run it as " + store_owner);
    else
        hint = "run it as " + store_owner + ", whose store it is; or make it the store of " + who +
               ", as root: `chown -R " + who + " " + shown + "`";
    throw ClientError(ExitCode::no_permission, text, hint);
}

int give_to_owner_of(int above, int file) {
    struct stat owner {};
    struct stat status {};
    if (::geteuid() != 0)
        return 0;
    if (::fstat(above, &owner) != 0 || ::fstat(file, &status) != 0)
        return errno;
    // Another name of it may be a file that the owner of the folder must not have.
    bool roots_alone = status.st_uid == 0 && (S_ISDIR(status.st_mode) || status.st_nlink == 1);
    if (owner.st_uid == 0 || !roots_alone)
        return 0;
    return ::fchown(file, owner.st_uid, owner.st_gid) == 0 ? 0 : errno;
}

int make_folder(int parent, const std::string& name, int owner) {
    if (::mkdirat(parent, name.c_str(), 0700) != 0)
        return errno == EEXIST ? 0 : errno;
    FileDescriptor made(
        ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!made)
        return errno;
    (void)give_to_owner_of(owner, made.get()); // the run was warned
    return 0;
}

int give_to_owner_of_folder(const std::string& path) {
    if (::geteuid() != 0)
        return 0;
    FileDescriptor folder(::open(folder_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    FileDescriptor file(
        ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return folder && file ? give_to_owner_of(folder.get(), file.get()) : errno;
}

std::string other_owner_warning(const std::string& directory, uid_t owner, bool given_away) {
    const uid_t user = ::geteuid();
    if (user == owner)
        return {};
    std::string name = user_text(owner);
    std::string text = "the store " + directory + " belongs to " + name + ", and this is run by " +
                       user_text(user) + ": what it writes there ";
    return text + (given_away ? "is given to " + name
                              : "stays " + user_text(user) + "'s, and runs as " + name +
                                    " may then be refused (exit code 12); run it as " + name);
}

} // namespace qrtln
