// What a store answers to a user that lacks the right to one of its files, and whom its files
// belong to when root writes them.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace qrtln {

// The paths from "/" down to this one, which is absolute.
std::vector<std::string> steps_to(const std::string& path);

// The name of a user, or its number where the system has none.
std::string user_text(uid_t user);

// Throws ClientError(no_permission) when the error number says that this user lacks a right, and
// returns for any other. `doing` is "read the manifest", `path` the full path of a file or folder
// of a store or below --state that was to be read, or with `writes` written too. The message names
// what denies it, which may be a folder above, its owner and the user; the hint has the command
// that mends it.
void throw_if_no_permission(const std::string& doing, const std::string& path, int error,
                            bool writes = false);

// For root: gives a file or folder of its own, open as `file`, to owner and group of the folder
// `above`; a file with other names (hard links) is left alone. Does nothing for any other user.
// Returns 0 or the errno.
int give_to_owner_of(int above, int file);
// Makes a folder of mode 0700 below `parent`, for whom `owner` belongs to; one that is there
// already stays as it is. Returns 0 or the errno.
int make_folder(int parent, const std::string& name, int owner);
// Likewise for the file `path` and its folder; a symbolic link is not followed.
int give_to_owner_of_folder(const std::string& path);

// What a run that writes to the folder of a store leads to when this user is not its owner, as a
// warning; else empty. `given_away`: what root writes there goes to the owner.
std::string other_owner_warning(const std::string& directory, uid_t owner, bool given_away);

} // namespace qrtln
