#include "client/base/permission.h"

#include "client/base/error.h"
#include "client/base/ownership.h"
#include "client/base/paths.h"
#include "client/base/text.h"

#include <fcntl.h>
#include <fmt/format.h>
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
        fmt::format("cannot {}, {}: {}", doing, for_terminal(path), system_error_text(error));
    if (known)
        text +=
            fmt::format("{}{}, and this is run by {}",
                        culprit == path ? ": it belongs to "
                                        : fmt::format(": {} belongs to ", for_terminal(culprit)),
                        owner, who);
    std::string hint;
    if (known && denied.st_uid == user)
        hint = fmt::format("`chmod -R u+rwX {}` gives its owner the right", shown);
    else if (above && path != culprit)
        hint = "run it as a user that may pass this folder";
    else if (store.st_uid == user || denied.st_uid != store.st_uid)
        hint =
            fmt::format("as root: `chown -R {} {}`{}", store_owner, shown,
                        store.st_uid == user ? std::string() : ", then run it as " + store_owner);
    else
        hint = fmt::format("run it as {}, whose store it is; or make it the store of {}, as root: "
                           "`chown -R {} {}`",
                           store_owner, who, who, shown);
    throw ClientError(ExitCode::no_permission, text, hint);
}

std::string other_owner_warning(const std::string& directory, uid_t owner, bool given_away) {
    const uid_t user = ::geteuid();
    if (user == owner)
        return {};
    std::string name = user_text(owner);
    std::string text =
        fmt::format("the store {} belongs to {}, and this is run by {}: what it writes there ",
                    directory, name, user_text(user));
    return text +
           (given_away
                ? "is given to " + name
                : fmt::format(
                      "stays {}'s, and runs as {} may then be refused (exit code 12); run it as {}",
                      user_text(user), name, name));
}

} // namespace qrtln
