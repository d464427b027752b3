#include "client/recovery/leftovers.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/module/temporary_directory.h"
#include "client/store/file_digest.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr std::string_view folder_prefix = "qrtln-recovery_";

bool is_pending_folder(const std::string& folder) {
    return name_of(folder).starts_with(folder_prefix) && exists(folder);
}

} // namespace

std::string make_pending_folder(const std::string& tmp_dir, const std::string& data_directory) {
    return make_folder_for_copies(tmp_dir, data_directory, std::string(folder_prefix));
}

std::string make_folder_for_proof(const std::string& tmp_dir, const std::string& data_directory) {
    return make_folder_for_copies(tmp_dir, data_directory, std::string(folder_prefix) + "proof_");
}

std::vector<std::string> leftovers_of(const RecoveryJournal& journal) {
    std::vector<std::string> leftovers;
    for (const PutBackLog& log : journal.extents)
        if (file_has_content(log.path, log.object))
            leftovers.push_back(log.path);
    if (is_pending_folder(journal.pending_folder))
        leftovers.push_back(journal.pending_folder);
    return leftovers;
}

std::vector<std::string> abandon_recovery(const RecoveryJournal& journal) {
    std::vector<std::string> warnings;
    // Whatever the journal says, only what a recovery makes is removed.
    for (const PutBackLog& log : journal.extents) {
        if (!exists(log.path))
            continue;
        if (!file_has_content(log.path, log.object))
            warnings.push_back(
                fmt::format("the transaction log {} is not the one that was put back there (the "
                            "server may have begun a new log): it is left alone",
                            log.path));
        else if (::unlink(log.path.c_str()) != 0 && errno != ENOENT)
            warnings.push_back(fmt::format("cannot remove the restored transaction log {}: {}",
                                           log.path, system_error_text(errno)));
    }
    const std::string& folder = journal.pending_folder;
    if (is_pending_folder(folder))
        if (int error = remove_tree(AT_FDCWD, folder); error != 0)
            warnings.push_back(fmt::format("cannot remove the folder of restored copies {}: {}",
                                           folder, system_error_text(error)));
    return warnings;
}

} // namespace qrtln
