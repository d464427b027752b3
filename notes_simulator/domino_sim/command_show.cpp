// show, backups and logs: what is in a database, and what the server remembers.
#include "notes_simulator/base/status.h"
#include "notes_simulator/base/text_translation.h"
#include "notes_simulator/base/times.h"
#include "notes_simulator/domino_sim/cli.h"
#include "notes_simulator/domino_sim/database_state.h"
#include "notes_simulator/engine/backup_context.h"
#include "notes_simulator/engine/transaction.h"
#include "notes_simulator/log/extent.h"
#include "notes_simulator/log/extent_files.h"
#include "notes_simulator/server/server.h"
#include "notes_simulator/server/server_lock.h"
#include "notes_simulator/server/use_mark.h"

#include <nlohmann/json.hpp>

#include <iostream>
#include <memory>

namespace fs = std::filesystem;
using namespace notes_sim;
using nlohmann::json;

namespace domino_sim {

namespace {

constexpr std::size_t kLongestName = 4096; // bytes of a user's name

struct ShowOptions {
    std::vector<std::string> place;
    bool asJson = false;
    bool notes = false;
};

struct ServerOptions {
    std::string server;
    bool asJson = false;
};

struct UnreadOptions {
    std::string server;
    std::string database;
    std::string user;
};

/// A file to show, and the server it is part of.
struct Place {
    fs::path file;
    std::optional<Server> server;
};

/// The file meant by FILE or by SERVER DB. A file in a server is read as part of that server.
Place placeOf(const std::vector<std::string>& place) {
    if (place.size() == 2) {
        Server server = useServer(place[0]);
        return {requireDatabase(server, place[1]), server};
    }
    const fs::path file = fs::absolute(place[0]);
    if (const auto folder = findServerFolder(file)) {
        return {file, useServer(folder->string())};
    }
    return {file, std::nullopt};
}

/// How to open a database only to read it: one that is online may need the rollback of what a
/// killed writer left, an offline one is left alone.
Connection::Mode readingMode(const Server& server, const fs::path& file) {
    return isOffline(server, file) ? Connection::Mode::kReadOnly : Connection::Mode::kReadWrite;
}

std::string dumped(const json& value) {
    return value.dump(2, ' ', false, json::error_handler_t::replace);
}

void print(const json& value, bool asJson) {
    if (asJson) {
        std::cout << dumped(value) << '\n';
        return;
    }
    for (const auto& [name, field] : value.items()) {
        std::cout << name << ": " << (field.is_string() ? field.get<std::string>() : dumped(field))
                  << '\n';
    }
}

void runShow(const ShowOptions& options) {
    const auto [file, server] = placeOf(options.place);
    std::unique_ptr<Database> database;
    DatabaseState state;
    try {
        database = std::make_unique<Database>(file, server ? readingMode(*server, file)
                                                           : Connection::Mode::kReadOnly);
        state = readState(*database, true);
    } catch (const StatusError& error) {
        if (error.status() != kDatabaseDamaged) {
            throw;
        }
        state.integrity = error.what();
    }
    json value = {{"file", file.string()},
                  {"integrity", state.integrity},
                  {"title", state.header.title},
                  {"dbiid", hex(state.header.dbiid)},
                  {"logId", hex(state.header.logId)},
                  {"logged", state.header.logged},
                  {"commit", state.header.commit},
                  {"lastRecord", state.header.lastRecord},
                  {"lastExtent", state.header.lastExtent},
                  {"notes", state.notes.size()},
                  {"stubs", state.stubs.size()},
                  {"digest", state.digest}};
    if (server) {
        value["offline"] = isOffline(*server, file);
    }
    if (options.notes) {
        json ids = json::array();
        for (const auto& [id, digest] : state.notes) {
            ids.push_back(id);
        }
        value["noteIds"] = ids;
    }
    print(value, options.asJson);
    if (state.integrity != "ok") {
        throw CheckFailed(file.string() + ": integrity check failed: " + state.integrity);
    }
}

json backupOf(const Server& server, const fs::path& file) {
    const std::string key = server.keyOf(file);
    const BackupRecord record = readBackupRecord(server, key);
    json value = {{"database", server.nameOf(file)}, {"backedUp", record.backedUp}};
    value["offline"] = isOffline(server, file);
    value["dbiid"] = hex(Database(file, readingMode(server, file)).header().dbiid);
    if (record.backedUp) {
        value["backupTime"] = displayTime(record.time);
        value["backupCommit"] = record.commit;
        value["backupDbiid"] = hex(record.dbiid);
    }
    value["stopCommit"] = record.stopCommit ? json(*record.stopCommit) : json(nullptr);
    if (const auto context = openContext(server, key)) {
        value["context"] = {{"process", context->process},
                            {"started", displayTime(context->started)},
                            {"highWaterMark", context->highWaterMark},
                            {"stopped", context->stopped}};
    }
    return value;
}

void runBackups(const ServerOptions& options) {
    const Server server = useServer(options.server);
    json list = json::array();
    for (const fs::path& file : allDatabases(server)) {
        list.push_back(backupOf(server, file));
    }
    if (options.asJson) {
        std::cout << dumped(list) << '\n';
        return;
    }
    for (const json& entry : list) {
        std::cout << entry["database"].get<std::string>() << ": ";
        if (entry["backedUp"].get<bool>()) {
            std::cout << "backed up " << entry["backupTime"].get<std::string>() << " at commit "
                      << entry["backupCommit"];
            if (entry["backupDbiid"] != entry["dbiid"]) {
                std::cout << ", as an earlier instance";
            }
        } else {
            std::cout << "never backed up";
        }
        if (entry["offline"].get<bool>()) {
            std::cout << "; offline";
        }
        if (entry.contains("context")) {
            std::cout << "; context open since " << entry["context"]["started"].get<std::string>()
                      << " by process " << entry["context"]["process"];
        }
        std::cout << '\n';
    }
}

void runUnread(const UnreadOptions& options) {
    const Server server = useServer(options.server);
    const fs::path file = requireDatabase(server, options.database);
    // Databases keep names as the C API brings them.
    const std::string name = translateText(
        Translation::kLmbcsToUtf8,
        translateText(Translation::kNativeToLmbcs,
                      options.user.empty() ? server.userName() : options.user, kLongestName),
        kLongestName);
    Database database(file, readingMode(server, file));
    for (const NoteId id : database.unreadOf(name)) {
        if (database.note(id)) {
            std::cout << id << '\n';
        }
    }
}

json logsOf(const Server& server) {
    const ServerLock lock(server);
    const auto log = openLog(server, lock);
    const auto ready = log->readyExtents();
    json extents = json::array();
    for (const auto& [file, header] : extentFiles(server)) {
        std::uint64_t records = 0;
        readExtent(file, [&records](const LogRecord&) {
            ++records;
            return true;
        });
        std::string state = "kept";
        if (header.logId != log->logId()) {
            state = "of another log";
        } else if (header.free) {
            state = "free"; // archived before, and waits to be used again
        } else if (header.number == log->activeExtent()) {
            state = "active";
        } else if (std::find(ready.begin(), ready.end(), header.number) != ready.end()) {
            state = "ready to archive";
        } else if (header.number > log->activeExtent() || header.number < log->firstExtent() ||
                   server.style == LogStyle::kArchive) {
            state = "put back"; // archived before, and restored by somebody
        }
        extents.push_back({{"file", file.filename().string()},
                           {"number", server.logNumber(header.number)},
                           {"firstRecord", header.firstRecord},
                           {"records", records},
                           {"state", state}});
    }
    const auto session = archivingSession(server);
    return {{"style", static_cast<int>(server.style)},
            {"logId", hex(log->logId())},
            {"activeExtent", server.logNumber(log->activeExtent())},
            {"nextRecord", log->nextRecord()},
            {"bytes", log->totalBytes()},
            {"archivingSession", session ? json(*session) : json(nullptr)},
            {"extents", extents}};
}

void runLogs(const ServerOptions& options) {
    const Server server = useServer(options.server);
    if (server.style == LogStyle::kNone) {
        throw StatusError(kNoTransactionLogging, options.server);
    }
    const json logs = logsOf(server);
    if (options.asJson) {
        std::cout << dumped(logs) << '\n';
        return;
    }
    static constexpr const char* kStyles[] = {"circular", "archive", "linear"};
    std::cout << kStyles[logs["style"].get<int>()] << " log " << logs["logId"].get<std::string>()
              << ", next record " << logs["nextRecord"] << '\n';
    for (const json& extent : logs["extents"]) {
        std::cout << extent["file"].get<std::string>() << ": number " << extent["number"] << ", "
                  << extent["state"].get<std::string>() << ", " << extent["records"]
                  << " records from " << extent["firstRecord"] << '\n';
    }
    if (logs["archivingSession"].is_string()) {
        std::cout << "archiving session " << logs["archivingSession"].get<std::string>() << '\n';
    }
}

} // namespace

void addShowCommands(CLI::App& app) {
    auto show = std::make_shared<ShowOptions>();
    CLI::App* command = app.add_subcommand(
        "show", "Show what a database file or a copy of one holds; exits with 4 when its "
                "integrity check fails");
    command->add_option("FILE | SERVER DB", show->place, "A file, or a server and its database")
        ->required()
        ->expected(1, 2);
    command->add_flag("--json", show->asJson, "Print JSON");
    command->add_flag("--ids", show->notes, "List the ids of the notes, too");
    command->callback([show] { runShow(*show); });

    auto unread = std::make_shared<UnreadOptions>();
    command = app.add_subcommand(
        "unread", "Print the ids of the notes that are marked unread for a user, one a line");
    command->add_option("SERVER", unread->server, "Server folder")->required();
    command->add_option("DB", unread->database, "Database")->required();
    command->add_option("--user", unread->user, "The user; the server's own when not given");
    command->callback([unread] { runUnread(*unread); });

    auto backups = std::make_shared<ServerOptions>();
    command = app.add_subcommand("backups", "Show what the server remembers of backups");
    command->add_option("SERVER", backups->server, "Server folder")->required();
    command->add_flag("--json", backups->asJson, "Print JSON");
    command->callback([backups] { runBackups(*backups); });

    auto logs = std::make_shared<ServerOptions>();
    command = app.add_subcommand("logs", "Show the extents of the transaction log");
    command->add_option("SERVER", logs->server, "Server folder")->required();
    command->add_flag("--json", logs->asJson, "Print JSON");
    command->callback([logs] { runLogs(*logs); });
}

} // namespace domino_sim
