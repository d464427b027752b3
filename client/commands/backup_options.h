// What `qrtln backup` is asked for.
#pragma once

#include "client/backup/busy_wait.h"
#include "client/backup/system_files.h"
#include "client/commands/forget_sets.h"
#include "client/commands/options.h"
#include "client/store/compression.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

struct BackupOptions : ServerOptions {
    std::string level = "full";       // "full", "copy", "diff" or "incr"
    bool auto_full = false;           // a diff or incr without its base becomes a full one
    bool take_over = false;           // this store archives the server's logs from now on
    bool log_session = false;         // full: logs that come only so are taken within a session
    std::vector<std::string> removed; // folders that were removed on purpose
    bool databases_only = false;      // nothing that the module does not hand out
    bool reread = false;              // also files that are as they were
    std::vector<PathRule> rules;      // of the other files, in the order of the command line
    std::vector<std::string> databases;
    std::optional<ForgetRequest> forget; // after a complete set
    std::uint32_t block_size = 0;        // of a store that is made, in bytes; 0: the usual
    CompressionLevel compression = usual_compression;
    unsigned busy_wait = default_busy_wait; // seconds for databases that others back up or compact
};

// Binds them to the command; they outlive its parsing.
void add_backup_options(CLI::App& command, BackupOptions& options);

} // namespace qrtln
