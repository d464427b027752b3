// Whom files belong to that root writes.
#pragma once

#include <string>
#include <sys/types.h>

namespace qrtln {

// The name of a user, or its number where the system has none.
std::string user_text(uid_t user);

// For root: gives a file or folder of its own, open as `file`, to owner and group of the folder
// `above`; a file with other names (hard links) is left alone. Does nothing for any other user.
// Returns 0 or the errno.
int give_to_owner_of(int above, int file);

// Makes a folder of mode 0700 below `parent`, for whom `owner` belongs to; one that is there
// already stays as it is. Returns 0 or the errno.
int make_folder(int parent, const std::string& name, int owner);

// Likewise for the file `path` and its folder; a symbolic link is not followed.
int give_to_owner_of_folder(const std::string& path);

} // namespace qrtln
