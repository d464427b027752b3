#include "notes_simulator/storage/leftover_journals.h"

#include "notes_simulator/base/status.h"
#include "notes_simulator/server/use_mark.h"
#include "notes_simulator/storage/side_files.h"
#include "notes_simulator/storage/sql.h"

#include <string>

namespace fs = std::filesystem;

namespace notes_sim {

void rollBackLeftoverJournals(const Server& server) {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(server.state / "journals", error)) {
        std::string name = entry.path().filename().string();
        if (fs::file_size(entry.path(), error) == 0 || !name.ends_with(kJournalSuffix)) {
            continue;
        }
        name.resize(name.size() - kJournalSuffix.size());
        if (isShortenedKey(name)) {
            continue; // names no database any more; that one is rolled back when it is opened next
        }
        std::string path;
        for (std::size_t i = 0; i < name.size(); ++i) {
            if (name.compare(i, 3, "%2F") == 0) {
                path += '/';
                i += 2;
            } else if (name.compare(i, 3, "%25") == 0) {
                path += '%';
                i += 2;
            } else {
                path += name[i];
            }
        }
        const fs::path database = server.resolve(path);
        if (!fs::exists(database, error) || isOffline(server, database)) {
            fs::remove(entry.path(), error);
            continue;
        }
        try {
            Connection(database, Connection::Mode::kReadWrite).integer("PRAGMA schema_version");
        } catch (const StatusError&) {
            // A damaged database is reported when it is opened by name.
        }
    }
}

} // namespace notes_sim
