// What a recovery has on the server until it ends: the folder of its copies, and transaction logs
// that came back for it alone.
#pragma once

#include "client/recovery/journal.h"

#include <string>
#include <vector>

namespace qrtln {

// Makes a folder for restored copies, or a scratch folder for a proof. Throws ClientError(failed).
std::string make_pending_folder(const std::string& tmp_dir, const std::string& data_directory);
std::string make_folder_for_proof(const std::string& tmp_dir, const std::string& data_directory);

// What an unfinished recovery has on the server: the folder of its copies, and logs that still have
// the content that was put back.
std::vector<std::string> leftovers_of(const RecoveryJournal& journal);
// Removes that. Returns warnings about what could not be removed, and logs that were left because
// they are others by now.
std::vector<std::string> abandon_recovery(const RecoveryJournal& journal);

} // namespace qrtln
