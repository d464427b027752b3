// check: whether a copy is exactly the database at one of its commits.
#include "notes_simulator/backup_context.h"
#include "notes_simulator/domino_sim/cli.h"
#include "notes_simulator/domino_sim/manifest.h"
#include "notes_simulator/status.h"

#include <iostream>
#include <memory>

namespace fs = std::filesystem;
using namespace notes_sim;

namespace domino_sim {

namespace {

struct CheckOptions {
    std::string copy;
    std::string database;
    std::string manifest;
    std::string server;
};

void compare(const char* kind, const std::map<NoteId, std::string>& expected,
             const std::map<NoteId, std::string>& found) {
    for (const auto& [id, digest] : expected) {
        const auto match = found.find(id);
        if (match == found.end()) {
            throw CheckFailed(std::string(kind) + " " + std::to_string(id) + " is missing");
        }
        if (match->second != digest) {
            throw CheckFailed(std::string(kind) + " " + std::to_string(id) + " differs");
        }
    }
    for (const auto& [id, digest] : found) {
        if (!expected.contains(id)) {
            throw CheckFailed(std::string(kind) + " " + std::to_string(id) + " must not be there");
        }
    }
}

void runCheck(const CheckOptions& options) {
    const fs::path copy = fs::absolute(options.copy);
    const Status status = probeDatabase(copy);
    if (status == kNoSuchFile || status == kAccessDenied) {
        throw StatusError(status, copy.string());
    }
    if (status != kOk) {
        throw CheckFailed(StatusError(status, copy.string()).what());
    }
    DatabaseState state;
    try {
        Database database(copy, Connection::Mode::kReadOnly);
        state = readState(database, true);
    } catch (const StatusError& error) {
        throw CheckFailed(error.what());
    }
    if (state.integrity != "ok") {
        throw CheckFailed(copy.string() + ": integrity check failed: " + state.integrity);
    }
    const std::uint64_t commit = state.header.commit;
    const ManifestState expected = stateAfter(options.manifest, options.database, commit);
    compare("note", expected.notes, state.notes);
    compare("stub", expected.stubs, state.stubs);
    if (!options.server.empty()) {
        const Server server = useServer(options.server);
        const BackupRecord record =
            readBackupRecord(server, server.keyOf(server.resolve(options.database)));
        if (!record.stopCommit) {
            throw CheckFailed("no backup of " + options.database + " has been stopped");
        }
        if (*record.stopCommit != commit) {
            throw CheckFailed("the copy is at commit " + std::to_string(commit) +
                              ", the backup was stopped at " + std::to_string(*record.stopCommit));
        }
    }
    std::cout << options.database << ": exact at commit " << commit << ", " << state.notes.size()
              << " notes, " << state.stubs.size() << " stubs\n";
}

} // namespace

void addCheckCommand(CLI::App& app) {
    auto check = std::make_shared<CheckOptions>();
    CLI::App* command = app.add_subcommand(
        "check", "Check that a copy is sound and holds exactly what the manifest says for its own "
                 "commit number; exits with 4 when not");
    command->add_option("COPY", check->copy, "Copy of a database")->required();
    command->add_option("--database", check->database, "Name of the database it is a copy of")
        ->required();
    command->add_option("--manifest", check->manifest, "Manifest of the workload")->required();
    command->add_option("--server", check->server,
                        "Also check that its commit number is that of the last NSFBackupStop");
    command->callback([check] { runCheck(*check); });
}

} // namespace domino_sim
