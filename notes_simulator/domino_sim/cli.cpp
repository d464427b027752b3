#include "notes_simulator/domino_sim/cli.h"

#include "notes_simulator/base/status.h"
#include "notes_simulator/base/times.h"
#include "notes_simulator/domino_sim/content.h"
#include "notes_simulator/engine/transaction.h"
#include "notes_simulator/server/server_lock.h"
#include "notes_simulator/server/use_mark.h"
#include "notes_simulator/storage/recording_vfs.h"

#include <algorithm>

namespace fs = std::filesystem;
using namespace notes_sim;

namespace domino_sim {

Server useServer(const std::string& folder) {
    Server server = openServerFolder(folder);
    setRecordingServer(server);
    return server;
}

fs::path requireDatabase(const Server& server, const std::string& name) {
    fs::path file = server.resolve(name);
    if (const Status status = probeDatabase(file); status != kOk) {
        throw StatusError(status, file.string());
    }
    return file;
}

std::vector<fs::path> allDatabases(const Server& server) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(server.data)) {
        if (entry.is_regular_file() && probeDatabase(entry.path()) == kOk) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

void createDatabase(const Server& server, const fs::path& file, bool logged,
                    const std::string& title, int notes, std::uint64_t seed) {
    fs::create_directories(file.parent_path());
    ContentGenerator content(seed);
    const ServerLock lock(server);
    requireOnline(server, file);
    const auto log = openLog(server, lock);
    DatabaseHeader header;
    header.replica = randomId8();
    header.commitTime = nowInHundredths();
    const TimeWords now = toTimeWords(header.commitTime);
    ByteWriter dbid; // a DBID is the time of the creation
    dbid.u32(now.ticks);
    dbid.u32(now.day);
    std::copy(dbid.bytes.begin(), dbid.bytes.end(), header.dbid.begin());
    header.dbiid = randomId16();
    header.logged = logged;
    header.commit = 1;
    header.title = title;
    if (log && isLogged(server, file, header)) {
        header.logId = log->logId();
        header.lastExtent = log->activeExtent();
    }
    std::vector<NoteChange> changes;
    for (int i = 0; i < notes; ++i) {
        NoteChange change = content.newNote();
        change.note.unid = randomId16();
        change.note.modified = header.commitTime;
        changes.push_back(std::move(change));
    }
    Database::create(file, header, std::move(changes));
}

std::unique_ptr<CLI::App> commandTree() {
    auto tree = std::make_unique<CLI::App>(
        "Plays a Domino server over a folder: makes one, changes its databases while "
        "backups run, shows and checks what is in databases and their copies.\n\n"
        "A SERVER is a folder made by init, with notes.ini, data/, logs/ and state/. A DB "
        "is a database in its data directory, named relative to it. Library users find "
        "the same server through libnotes.so and SERVER/notes.ini.\n\n"
        "Exit status: 0 done, 1 failed, 2 wrong usage, 4 a database or copy is not as it "
        "must be.",
        "domino-sim");
    CLI::App& app = *tree;
    app.require_subcommand(1);
    addInitCommands(app);
    addEditCommands(app);
    addShowCommands(app);
    addWorkloadCommand(app);
    addCheckCommand(app);
    addOfflineCommands(app);
    addHarmCommands(app);
    return tree;
}

} // namespace domino_sim
