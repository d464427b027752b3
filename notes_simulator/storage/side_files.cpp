#include "notes_simulator/storage/side_files.h"

namespace fs = std::filesystem;

namespace notes_sim {

fs::path changesFile(const Server& server, const std::string& key) {
    return server.state / "contexts" / key / "changes";
}

fs::path journalFile(const Server& server, const fs::path& database) {
    return server.state / "journals" / (server.keyOf(database) + std::string(kJournalSuffix));
}

} // namespace notes_sim
