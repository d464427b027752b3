// Whom the server's library runs as: the user that owns the server's data directory. As root it
// would make files (logs, indexes, locks) that the server itself can write no more.
#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

namespace qrtln {

struct ServerUser {
    uid_t uid = 0;
    gid_t gid = 0;         // of the user's entry in the system; without one of the data directory
    std::string name;      // the number where the system has no entry
    std::string home;      // "/" then
    bool has_entry = true; // else the user has this one group alone
};

// Whom the module's process is to become: the owner of the data directory, where this process is
// root and the owner is not. Stays the same in a process once it is known: the disk with the
// directory may be gone later, and the library must not run as root then.
std::optional<ServerUser> server_user(const std::string& data_directory);

// Makes this process that user for good: groups, group and user, HOME, USER and LOGNAME. Returns an
// empty text, or what failed: then the process must not go on. REQUIRES: root, and one thread.
std::string become(const ServerUser& user);

// Throws ClientError(no_permission), with the command to use, where this user is neither root nor
// the owner of the data directory, or may not even read the notes.ini in it.
void require_server_user(const std::string& data_directory);
void require_readable_notes_ini(const std::string& notes_ini);

// What keeps the server's user from a path: the first folder on the way that he may not search, or
// the path itself where he has not these rights (R_OK, W_OK, X_OK). Empty: nothing does, or the
// module's process stays this user. What is not there yet keeps nobody from it.
std::string refused_to_server_user(const std::string& path, int rights,
                                   const std::string& data_directory);

// Gives what root has just made for the module's process, open as `fd`, to the server's user; what
// is not root's alone stays as it is. Returns 0 or the errno.
int give_to_server_user(int fd, const std::string& data_directory);
// Likewise a folder, and one of root's that nobody else could reach with all that is in it.
int give_folder_to_server_user(const std::string& path, const std::string& data_directory);
int give_tree_to_server_user(const std::string& path, const std::string& data_directory);

// Whether files of this user are the run's own: it is this process' or the server's.
bool is_runs_own(uid_t owner, const std::string& data_directory);

} // namespace qrtln
