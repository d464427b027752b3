// The transaction logs that the server still has.
#pragma once

#include "client/recovery/stored_logs.h"
#include "client/sets/manifest.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace qrtln {

// The folder of the server's own logs as it is now.
struct ServerLogs {
    std::string directory;                           // absolute; empty: unknown
    bool missing = false;                            // lost: no such folder, or an empty one
    bool has_control = false;                        // the log control file is there
    std::map<std::uint32_t, std::int64_t> last_used; // by number: modification time, nanoseconds
    // Names of files tell the numbers of the logs in them. If not, last_used has what
    // compare_with_stored() found, and nobody can see beforehand which logs behind the stored ones
    // are there.
    bool names_tell = true;
};

// Looks at the folder; a file counts as a log when its name has the form of one. Throws
// ClientError(failed) for a folder that is there and cannot be read.
ServerLogs look_at_server_logs(const std::string& directory);

// Looks whether names can be relied on: a server may use the file of an archived log again for a
// later one. A stored log whose name has another number, or none, and a file that has the name of a
// stored log and other content say that they cannot. `between` is called now and then and ends it
// by throwing.
void compare_with_stored(ServerLogs& server, const StoredLogs& stored,
                         const std::function<void()>& between = {});

// The number in a log's file name, "S0000012.TXN", or nothing.
std::optional<std::uint32_t> log_number_of(const std::string& file_name);

// Whether the file there is this stored log: it was not written since, or has that content.
// `between` is called now and then and ends it by throwing; it may be empty.
bool is_stored_log(const std::string& path, const ManifestItem& item,
                   const std::function<void()>& between);

// The log's full path in the folder of the server's logs.
std::string log_target(const ServerLogs& server, const StoredLog& log);

} // namespace qrtln
