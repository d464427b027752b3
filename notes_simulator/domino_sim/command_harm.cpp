// compact, saved, damage and lose: what befalls databases beside users and backups.
#include "notes_simulator/base/status.h"
#include "notes_simulator/domino_sim/cli.h"
#include "notes_simulator/engine/backup_context.h"
#include "notes_simulator/engine/transaction.h"
#include "notes_simulator/log/extent.h"
#include "notes_simulator/server/server.h"
#include "notes_simulator/server/server_lock.h"
#include "notes_simulator/server/use_mark.h"
#include "notes_simulator/storage/side_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <iostream>
#include <memory>
#include <thread>

namespace fs = std::filesystem;
using namespace notes_sim;

namespace domino_sim {

namespace {

struct DatabaseOptions {
    std::string server;
    std::string database;
};

struct CompactOptions : DatabaseOptions {
    double seconds = 0; ///< that it takes
};

struct LoseOptions {
    std::string server;
    std::vector<std::string> databases;
    std::vector<std::uint32_t> extents;
    bool data = false;
    bool logs = false;
};

void refuseDuringBackup(const Server& server, const fs::path& file) {
    if (openContext(server, server.keyOf(file))) {
        throw StatusError(kRefusedDuringBackup, file.string());
    }
}

/// Takes its time before the compaction itself, which is short: users go on meanwhile, backups do
/// not begin.
std::unique_ptr<ActivityMark> beginCompaction(const Server& server, const fs::path& file,
                                              double seconds) {
    std::unique_ptr<ActivityMark> compaction;
    {
        const ServerLock lock(server);
        refuseDuringBackup(server, file);
        compaction =
            std::make_unique<ActivityMark>(server, server.keyOf(file), Activity::kCompaction);
    }
    if (seconds > 0) {
        std::cout << "compacts " << server.nameOf(file) << std::endl;
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    }
    return compaction;
}

void runCompact(const CompactOptions& options) {
    const Server server = useServer(options.server);
    const fs::path file = requireDatabase(server, options.database);
    const auto compaction = beginCompaction(server, file, options.seconds);
    const ServerLock lock(server);
    const UseMark mark(server, file, lock);
    const auto log = openLog(server, lock);
    refuseDuringBackup(server, file);
    Database database(file, Connection::Mode::kReadWrite);
    database.connection().run("VACUUM");
    DatabaseHeader header = database.header();
    header.dbiid = randomId16();
    header.lastRecord = 0;
    header.lastExtent = log ? log->activeExtent() : 0;
    database.writeHeader(header);
}

void runSaved(const DatabaseOptions& options) {
    const Server server = useServer(options.server);
    const fs::path file = requireDatabase(server, options.database);
    const UseMark mark(server, file);
    markBackedUp(server, file);
}

void removeContent(const fs::path& folder) {
    for (const auto& entry : fs::directory_iterator(folder)) {
        fs::remove_all(entry.path());
    }
}

void runLose(const LoseOptions& options) {
    if (options.databases.empty() && options.extents.empty() && !options.data && !options.logs) {
        throw StatusError(kInvalidArgument, "name databases, --extent, --data or --logs");
    }
    const Server server = useServer(options.server);
    std::vector<fs::path> files; // looked for first: a wrong name loses nothing
    for (const std::string& name : options.databases) {
        files.push_back(requireDatabase(server, name));
    }
    const ServerLock lock(server);
    const auto log = options.extents.empty() ? nullptr : openLog(server, lock);
    for (const std::uint32_t number : options.extents) {
        files.push_back(log ? log->extentPath(server.extentOf(number))
                            : server.logs / extentFileName(number));
        readExtentHeader(files.back());
    }
    for (const fs::path& file : files) {
        // The journal goes with its database: it must not be rolled back into a restored one.
        fs::remove(journalFile(server, file));
        fs::remove(file);
    }
    if (options.data) {
        removeContent(server.state / "journals");
        removeContent(server.data);
    }
    if (options.logs) {
        removeContent(server.logs);
    }
}

/// Overwrites the middle half of the file: the tables break, the file is still a database.
void runDamage(const std::string& name) {
    constexpr std::size_t kPiece = 512;
    const std::uint64_t size = fs::file_size(name);
    const int fd = ::open(name.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        throwErrno(errno, name);
    }
    const std::string garbage(kPiece, '\xDB');
    bool written = true;
    for (std::uint64_t at = std::max<std::uint64_t>(size / 4, 4096); at + kPiece <= size / 4 * 3;
         at += 2048) {
        written = written && ::pwrite(fd, garbage.data(), kPiece, static_cast<off_t>(at)) ==
                                 static_cast<ssize_t>(kPiece);
    }
    const int error = errno;
    ::close(fd);
    if (!written) {
        throwErrno(error, name);
    }
}

void addDatabaseCommand(CLI::App& app, const char* name, const char* help,
                        void (*run)(const DatabaseOptions&)) {
    auto options = std::make_shared<DatabaseOptions>();
    CLI::App* command = app.add_subcommand(name, help);
    command->add_option("SERVER", options->server, "Server folder")->required();
    command->add_option("DB", options->database, "Database")->required();
    command->callback([options, run] { run(*options); });
}

} // namespace

void addHarmCommands(CLI::App& app) {
    auto compact = std::make_shared<CompactOptions>();
    CLI::App* compaction = app.add_subcommand(
        "compact", "Rewrite a database, which gives it a new DBIID; refused during its backup");
    compaction->add_option("SERVER", compact->server, "Server folder")->required();
    compaction->add_option("DB", compact->database, "Database")->required();
    compaction
        ->add_option("--for", compact->seconds,
                     "Seconds that it takes; no backup of the database begins meanwhile. Prints a "
                     "line once it runs")
        ->check(CLI::Range(0.0, 1e9));
    compaction->callback([compact] { runCompact(*compact); });
    addDatabaseCommand(app, "saved", "Tell the server that another tool backed a database up",
                       runSaved);
    auto lose = std::make_shared<LoseOptions>();
    CLI::App* command = app.add_subcommand(
        "lose", "Delete files of a server behind its back, as a broken disk does");
    command->add_option("SERVER", lose->server, "Server folder")->required();
    command->add_option("DB", lose->databases, "Databases");
    command->add_option("--extent", lose->extents, "Log extents, by their numbers")
        ->check(CLI::PositiveNumber);
    command->add_flag("--data", lose->data,
                      "Everything in the data directory; SERVER/notes.ini stays");
    command->add_flag("--logs", lose->logs, "Everything in the folder of the transaction log");
    command->callback([lose] { runLose(*lose); });
    auto file = std::make_shared<std::string>();
    CLI::App* damage =
        app.add_subcommand("damage", "Overwrite parts of a database file with garbage");
    damage->add_option("FILE", *file, "Database file")->required()->check(CLI::ExistingFile);
    damage->callback([file] { runDamage(*file); });
}

} // namespace domino_sim
