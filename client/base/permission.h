// What a store answers to a user that lacks the right to one of its files, and whom its files
// belong to when root writes them.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace qrtln {

// Throws ClientError(no_permission) when the error number says that this user lacks a right, and
// returns for any other. `doing` is "read the manifest", `path` the full path of a file or folder
// of a store or below --state that was to be read, or with `writes` written too. The message names
// what denies it, which may be a folder above, its owner and the user; the hint has the command
// that mends it.
void throw_if_no_permission(const std::string& doing, const std::string& path, int error,
                            bool writes = false);

// What a run that writes to the folder of a store leads to when this user is not its owner, as a
// warning; else empty. `given_away`: what root writes there goes to the owner.
std::string other_owner_warning(const std::string& directory, uid_t owner, bool given_away);

} // namespace qrtln
