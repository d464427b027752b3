#include "notes_simulator/api/process.h"

#include "notes_simulator/base/status.h"
#include "notes_simulator/base/text_translation.h"
#include "notes_simulator/engine/database.h"

#include <unistd.h>

namespace notes_sim {

OpenBackup::~OpenBackup() {
    if (info >= 0) {
        ::close(info);
    }
}

Process& process() {
    // Never destroyed: a host may call from its own exit handlers.
    static Process* const instance = new Process;
    return *instance;
}

void closeEverything(Process& self) {
    if (self.server) {
        for (const auto& [handle, backup] : self.backups.all()) {
            try {
                if (backup->own) {
                    endBackup(*self.server, backup->key, backup->id, false);
                }
            } catch (const StatusError&) {
                // Somebody else has ended it.
            }
        }
    }
    self.backups.clear();
    self.applying.clear();
    self.databases.clear();
    self.tables.clear();
    self.memory.clear();
}

const Server& runningServer() {
    if (!process().server) {
        throw StatusError(kNotInitialised, "");
    }
    return *process().server;
}

const Server& knownServer() {
    if (!process().lastServer) {
        throw StatusError(kNotInitialised, "");
    }
    return *process().lastServer;
}

Database connect(Handle handle) {
    return Database(process().databases.get(handle).file, Connection::Mode::kReadWrite);
}

std::filesystem::path databaseFile(const Server& server, const char* path) {
    return linkedDatabase(server.resolve(translateText(Translation::kLmbcsToNative, path, 4096)));
}

} // namespace notes_sim
