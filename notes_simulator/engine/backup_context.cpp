#include "notes_simulator/engine/backup_context.h"

#include "notes_simulator/base/files.h"
#include "notes_simulator/base/status.h"
#include "notes_simulator/base/times.h"
#include "notes_simulator/engine/change_info.h"
#include "notes_simulator/engine/transaction.h"
#include "notes_simulator/log/transaction_log.h"
#include "notes_simulator/server/server_lock.h"
#include "notes_simulator/server/use_mark.h"
#include "notes_simulator/storage/before_images.h"
#include "notes_simulator/storage/side_files.h"

#include <nlohmann/json.hpp>

#include <unistd.h>

#include <cerrno>
#include <fstream>

namespace fs = std::filesystem;
using nlohmann::json;

namespace notes_sim {

namespace {

fs::path contextFolder(const Server& server, const std::string& key) {
    return server.state / "contexts" / key;
}

fs::path contextFile(const Server& server, const std::string& key) {
    return contextFolder(server, key) / "context.json";
}

fs::path recordFile(const Server& server, const std::string& key) {
    return server.state / "backups" / (key + ".json");
}

fs::path sessionFile(const Server& server) {
    return server.state / "archiving.json";
}

std::optional<json> readJson(const fs::path& file) {
    std::ifstream stream(file);
    if (!stream) {
        return std::nullopt;
    }
    json parsed = json::parse(stream, nullptr, false);
    if (parsed.is_discarded()) {
        throw StatusError(kIoError, file.string() + " is not readable as JSON");
    }
    return parsed;
}

// File names are bytes, not text: what is no UTF-8 must not stop a state file from being written.
std::string dumped(const json& value) {
    return value.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

json toJson(const BackupContext& context) {
    return {{"id", context.id},
            {"database", context.database},
            {"process", context.process},
            {"started", context.started},
            {"sizeAtStart", context.sizeAtStart},
            {"highWaterMark", context.highWaterMark},
            {"asOfStart", context.asOfStart},
            {"stopped", context.stopped},
            {"copyCommit", context.copyCommit},
            {"copyLogBytes", context.copyLogBytes},
            {"copyDbiid", hex(context.copyDbiid)},
            {"copyLogId", hex(context.copyLogId)},
            {"infoSize", context.infoSize}};
}

BackupContext contextFromJson(const json& value) {
    BackupContext context;
    context.id = value.at("id");
    context.database = value.at("database");
    context.process = value.at("process");
    context.started = value.at("started");
    context.sizeAtStart = value.at("sizeAtStart");
    context.highWaterMark = value.at("highWaterMark");
    context.asOfStart = value.at("asOfStart");
    context.stopped = value.at("stopped");
    context.copyCommit = value.at("copyCommit");
    context.copyLogBytes = value.at("copyLogBytes");
    context.copyDbiid = id16FromHex(value.at("copyDbiid").get<std::string>());
    context.copyLogId = id16FromHex(value.at("copyLogId").get<std::string>());
    context.infoSize = value.at("infoSize");
    return context;
}

void writeContext(const Server& server, const std::string& key, const BackupContext& context) {
    replaceFile(contextFile(server, key), dumped(toJson(context)));
}

void writeBackupRecord(const Server& server, const std::string& key, const BackupRecord& record) {
    json value = {{"database", record.database}, {"backedUp", record.backedUp},
                  {"time", record.time},         {"commit", record.commit},
                  {"logBytes", record.logBytes}, {"dbiid", hex(record.dbiid)},
                  {"logId", hex(record.logId)}};
    if (record.stopCommit) {
        value["stopCommit"] = *record.stopCommit;
    }
    replaceFile(recordFile(server, key), dumped(value));
}

/// The open context, which must be the one with this id.
BackupContext requireContext(const Server& server, const std::string& key, const std::string& id) {
    auto context = openContext(server, key);
    if (!context || context->id != id) {
        throw StatusError(kContextGone, key);
    }
    return *std::move(context);
}

std::vector<ChangedRange> readChanges(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    std::vector<ChangedRange> changes;
    // A range that a killed writer began to append was never followed by its write.
    for (ChangedRange range; stream.read(reinterpret_cast<char*>(&range),
                                         static_cast<std::streamsize>(sizeof range));) {
        changes.push_back(range);
    }
    return changes;
}

/// What the copy is of when the database is as it is now.
void noteCopy(BackupContext& context, const DatabaseHeader& header, const TransactionLog* log) {
    context.copyCommit = header.commit;
    context.copyDbiid = header.dbiid;
    context.copyLogId = header.logId;
    context.copyLogBytes = log != nullptr ? log->totalBytes() : 0;
}

} // namespace

std::optional<BackupContext> openContext(const Server& server, const std::string& key) {
    const auto value = readJson(contextFile(server, key));
    return value ? std::optional(contextFromJson(*value)) : std::nullopt;
}

bool isKeptFromUs(const Server& server, const std::string& key, const BackupContext& context) {
    return server.moods.has(Mood::kForeign) && context.process != ::getpid() &&
           ActivityMark::isThere(server, key, Activity::kBackup);
}

BackupContext startBackup(const Server& server, const fs::path& file,
                          std::unique_ptr<ActivityMark>* mark) {
    const ServerLock lock(server);
    const auto log = openLog(server, lock);
    const std::string key = server.keyOf(file);
    mark->reset();
    if (ActivityMark::isThere(server, key, Activity::kCompaction)) {
        throw StatusError(kBackupInProgress, file.string() + " is compacted");
    }
    if (auto present = openContext(server, key)) {
        return *std::move(present);
    }
    auto own = std::make_unique<ActivityMark>(server, key, Activity::kBackup);
    Database database(file, Connection::Mode::kReadWrite);
    if (log) {
        noteBackupStart(server, database, *log);
    }
    // No transaction is half in place under this lock, and none begins before recording is on.
    SqlTransaction exclusive(database.connection(), "BEGIN EXCLUSIVE");
    BackupContext context;
    context.id = hex(randomId16());
    context.database = server.nameOf(file);
    context.process = ::getpid();
    context.started = nowInHundredths();
    context.sizeAtStart = presentContent(database.connection()).size;
    context.asOfStart = server.moods.has(Mood::kBefore);
    noteCopy(context, database.header(), log.get());
    fs::create_directories(contextFolder(server, key));
    BeforeImages::remove(contextFolder(server, key));
    if (context.asOfStart) {
        BeforeImages::begin(contextFolder(server, key), context.sizeAtStart);
    }
    std::ofstream changes(changesFile(server, key), std::ios::binary | std::ios::trunc);
    if (!changes) {
        throwErrno(errno, changesFile(server, key).string());
    }
    writeContext(server, key, context);
    exclusive.commit();
    *mark = std::move(own);
    return context;
}

void setHighWaterMark(const Server& server, const std::string& key, const std::string& id,
                      std::uint64_t mark) {
    const ServerLock lock(server);
    BackupContext context = requireContext(server, key, id);
    context.highWaterMark = mark;
    writeContext(server, key, context);
    if (const auto images = BeforeImages::open(contextFolder(server, key))) {
        images->setMark(mark);
    }
}

BackupContext stopBackup(const Server& server, const fs::path& file, const std::string& id) {
    const ServerLock lock(server);
    const auto log = openLog(server, lock);
    const std::string key = server.keyOf(file);
    BackupContext context = requireContext(server, key, id);
    if (context.stopped) {
        return context;
    }
    Database database(file, Connection::Mode::kReadWrite);
    SqlTransaction exclusive(database.connection(), "BEGIN EXCLUSIVE");
    const auto images = BeforeImages::open(contextFolder(server, key));
    ChangedContent content = presentContent(database.connection());
    if (images) {
        content.size = context.sizeAtStart;
        content.read = [&images](auto bytes, auto offset) { images->content(bytes, offset); };
    } else {
        noteCopy(context, database.header(), log.get());
    }
    context.infoSize = writeChangeInfo(content, readChanges(changesFile(server, key)),
                                       changeInfoFile(server, key));
    context.stopped = true;
    writeContext(server, key, context);
    fs::remove(changesFile(server, key));
    exclusive.commit();
    BackupRecord record = readBackupRecord(server, key);
    record.database = context.database;
    record.stopCommit = context.copyCommit;
    writeBackupRecord(server, key, record);
    return context;
}

fs::path changeInfoFile(const Server& server, const std::string& key) {
    return contextFolder(server, key) / "info";
}

void endBackup(const Server& server, const std::string& key, const std::string& id, bool complete) {
    const ServerLock lock(server);
    const BackupContext context = requireContext(server, key, id);
    if (isKeptFromUs(server, key, context)) {
        throw StatusError(kForeignBackup, context.database);
    }
    if (complete) {
        if (!context.stopped) {
            throw StatusError(kBackupNotStopped, context.database);
        }
        BackupRecord record = readBackupRecord(server, key);
        record.database = context.database;
        record.backedUp = true;
        record.time = nowInHundredths();
        record.commit = context.copyCommit;
        record.logBytes = context.copyLogBytes;
        record.dbiid = context.copyDbiid;
        record.logId = context.copyLogId;
        writeBackupRecord(server, key, record);
    }
    // Without this file there is no context, whatever else a crash leaves in the folder.
    fs::remove(contextFile(server, key));
    std::error_code ignored; // the next context begins its files anew
    fs::remove_all(contextFolder(server, key), ignored);
}

void dropContext(const Server& server, const std::string& key, const ServerLock&) {
    std::error_code ignored; // without its file there is no context, whatever else remains
    fs::remove(contextFile(server, key), ignored);
    fs::remove_all(contextFolder(server, key), ignored);
}

BackupRecord readBackupRecord(const Server& server, const std::string& key) {
    BackupRecord record;
    const auto value = readJson(recordFile(server, key));
    if (!value) {
        return record;
    }
    record.database = value->at("database");
    record.backedUp = value->at("backedUp");
    record.time = value->at("time");
    record.commit = value->at("commit");
    record.logBytes = value->at("logBytes");
    record.dbiid = id16FromHex(value->at("dbiid").get<std::string>());
    record.logId = id16FromHex(value->at("logId").get<std::string>());
    if (value->contains("stopCommit")) {
        record.stopCommit = value->at("stopCommit").get<std::uint64_t>();
    }
    return record;
}

void markBackedUp(const Server& server, const fs::path& file) {
    const ServerLock lock(server);
    const auto log = openLog(server, lock);
    Database database(file, Connection::Mode::kReadWrite);
    if (log) {
        noteBackupStart(server, database, *log);
    }
    const DatabaseHeader header = database.header();
    const std::string key = server.keyOf(file);
    BackupRecord record = readBackupRecord(server, key);
    record.database = server.nameOf(file);
    record.backedUp = true;
    record.time = nowInHundredths();
    record.commit = header.commit;
    record.logBytes = log ? log->totalBytes() : 0;
    record.dbiid = header.dbiid;
    record.logId = header.logId;
    writeBackupRecord(server, key, record);
}

std::uint64_t logSpanSinceBackup(const Server& server, const fs::path& file) {
    const ServerLock lock(server);
    requireOnline(server, file);
    const auto log = openLog(server, lock);
    Database database(file, Connection::Mode::kReadWrite);
    const DatabaseHeader header = database.header();
    const BackupRecord record = readBackupRecord(server, server.keyOf(file));
    if (!record.backedUp || record.dbiid != header.dbiid || record.logId != header.logId) {
        throw StatusError(kNotBackedUp, record.database);
    }
    if (!log) {
        return 0;
    }
    if (isLogged(server, file, header) &&
        (header.logId != log->logId() || isOutOfStep(server, header, *log))) {
        throw StatusError(kNotBackedUp, record.database);
    }
    return log->totalBytes() - std::min(log->totalBytes(), record.logBytes);
}

std::optional<std::string> archivingSession(const Server& server) {
    const auto value = readJson(sessionFile(server));
    if (!value) {
        return std::nullopt;
    }
    return "begun by process " + std::to_string(value->at("process").get<std::int64_t>()) + " at " +
           displayTime(value->at("began").get<std::int64_t>());
}

bool ownsArchivingSession(const Server& server) {
    const auto value = readJson(sessionFile(server));
    return value && value->at("process").get<std::int64_t>() == ::getpid();
}

void beginArchiving(const Server& server) {
    const ServerLock lock(server);
    if (const auto session = archivingSession(server)) {
        throw StatusError(kArchivingInProgress, *session);
    }
    replaceFile(sessionFile(server),
                dumped({{"process", ::getpid()}, {"began", nowInHundredths()}}));
}

void endArchiving(const Server& server) {
    const ServerLock lock(server);
    std::error_code error;
    fs::remove(sessionFile(server), error);
    if (error) {
        throwErrno(error.value(), sessionFile(server).string());
    }
}

} // namespace notes_sim
