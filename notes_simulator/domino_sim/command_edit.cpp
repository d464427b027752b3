// put, attach and delete: single changes to a database.
#include "notes_simulator/base/status.h"
#include "notes_simulator/domino_sim/attachment.h"
#include "notes_simulator/domino_sim/cli.h"
#include "notes_simulator/domino_sim/content.h"
#include "notes_simulator/domino_sim/manifest.h"
#include "notes_simulator/engine/transaction.h"
#include "notes_simulator/server/server.h"
#include "notes_simulator/server/use_mark.h"

#include <unistd.h>

#include <csignal>
#include <iostream>
#include <memory>
#include <random>

namespace fs = std::filesystem;
using namespace notes_sim;

namespace domino_sim {

namespace {

struct PutOptions {
    std::string server;
    std::string database;
    NoteId id = 0;
    std::string text;
    int count = 1;
    std::string manifest;
    std::string crash;
};

struct AttachOptions {
    std::string server;
    std::string database;
    std::size_t size = 4096;
    int count = 1;
};

struct DeleteOptions {
    std::string server;
    std::string database;
    std::vector<NoteId> ids;
    std::string manifest;
};

/// The hooks of a single change: its line in a manifest, and the place to die at.
CommitHooks hooksFor(const std::string& name, ManifestWriter* manifest, const std::string& crash) {
    CommitHooks hooks;
    const auto die = [] { ::kill(::getpid(), SIGKILL); };
    if (manifest != nullptr) {
        hooks.beforeLog = [manifest, name](const Commit& commit) {
            manifest->commit(name, commit);
        };
    }
    if (crash == "after-log") {
        hooks.afterLog = die;
    } else if (crash == "half-written") {
        hooks.beforeCommit = die;
    }
    return hooks;
}

std::unique_ptr<ManifestWriter> openManifest(const std::string& file) {
    return file.empty() ? nullptr : std::make_unique<ManifestWriter>(file);
}

void runPut(const PutOptions& options) {
    const Server server = useServer(options.server);
    const fs::path file = requireDatabase(server, options.database);
    ContentGenerator content(std::random_device{}());
    std::vector<NoteChange> changes;
    for (int i = 0; i < options.count; ++i) {
        NoteChange change = content.newNote();
        change.note.id = options.id;
        if (!options.text.empty()) {
            change.note.subject = options.text.substr(0, 60);
            change.note.body.assign(options.text.begin(), options.text.end());
        }
        changes.push_back(std::move(change));
    }
    if (options.id != 0 && options.count != 1) {
        throw StatusError(kInvalidArgument, "--id writes one note, --count must be 1");
    }
    const auto manifest = openManifest(options.manifest);
    const UseMark mark(server, file);
    Database database(file, Connection::Mode::kReadWrite);
    const Commit commit =
        commitChanges(server, database, std::move(changes),
                      hooksFor(server.nameOf(file), manifest.get(), options.crash));
    for (const NoteChange& change : commit.changes) {
        std::cout << change.note.id << '\n';
    }
}

void runAttach(const AttachOptions& options) {
    const Server server = useServer(options.server);
    const fs::path file = requireDatabase(server, options.database);
    ContentGenerator content(std::random_device{}());
    const UseMark mark(server, file);
    Database database(file, Connection::Mode::kReadWrite);
    for (int i = 0; i < options.count; ++i) {
        const Commit commit =
            commitChanges(server, database, {attach(server, content, options.size)});
        std::cout << commit.changes.front().note.id << '\n';
    }
}

void runDelete(const DeleteOptions& options) {
    const Server server = useServer(options.server);
    const fs::path file = requireDatabase(server, options.database);
    std::vector<NoteChange> changes;
    for (const NoteId id : options.ids) {
        NoteChange change;
        change.kind = ChangeKind::kDelete;
        change.note.id = id;
        changes.push_back(std::move(change));
    }
    const auto manifest = openManifest(options.manifest);
    const UseMark mark(server, file);
    Database database(file, Connection::Mode::kReadWrite);
    commitChanges(server, database, std::move(changes),
                  hooksFor(server.nameOf(file), manifest.get(), ""));
}

} // namespace

void addEditCommands(CLI::App& app) {
    auto put = std::make_shared<PutOptions>();
    CLI::App* command =
        app.add_subcommand("put", "Write notes in one transaction and print their ids, one a line");
    command->add_option("SERVER", put->server, "Server folder")->required();
    command->add_option("DB", put->database, "Database")->required();
    command->add_option("--id", put->id, "Write the note with this id instead of new ones");
    command->add_option("--text", put->text, "Body of the notes; made up when not given");
    command->add_option("--count", put->count, "How many notes")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str();
    command->add_option("--manifest", put->manifest, "Append the commit to a workload's manifest");
    command
        ->add_option("--crash", put->crash,
                     "For tests, die by SIGKILL: after-log when the change is in the log and "
                     "nowhere else, half-written when pages may be written but not committed")
        ->check(CLI::IsMember({"after-log", "half-written"}));
    command->callback([put] { runPut(*put); });

    auto add = std::make_shared<AttachOptions>();
    command = app.add_subcommand("attach", "Write notes, each with an attachment in an object of "
                                           "its own, and print their ids, one a line");
    command->add_option("SERVER", add->server, "Server folder")->required();
    command->add_option("DB", add->database, "Database")->required();
    command->add_option("--size", add->size, "Bytes of each attachment")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 30))
        ->capture_default_str();
    command->add_option("--count", add->count, "How many notes")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str();
    command->callback([add] { runAttach(*add); });

    auto remove = std::make_shared<DeleteOptions>();
    command = app.add_subcommand("delete", "Delete notes in one transaction");
    command->add_option("SERVER", remove->server, "Server folder")->required();
    command->add_option("DB", remove->database, "Database")->required();
    command->add_option("ID", remove->ids, "Note ids")->required();
    command->add_option("--manifest", remove->manifest,
                        "Append the commit to a workload's manifest");
    command->callback([remove] { runDelete(*remove); });
}

} // namespace domino_sim
