#include "notes_simulator/engine/transaction.h"

#include "notes_simulator/base/status.h"
#include "notes_simulator/base/times.h"
#include "notes_simulator/log/extent.h"
#include "notes_simulator/server/server_lock.h"
#include "notes_simulator/server/use_mark.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

/// Gives the changes their ids and times. Later changes of one transaction see earlier ones.
void complete(Database& database, std::vector<NoteChange>& changes, DatabaseHeader& header,
              std::int64_t time) {
    for (auto change = changes.begin(); change != changes.end(); ++change) {
        Note& note = change->note;
        const bool writes = change->kind == ChangeKind::kWrite;
        note.modified = time;
        if (note.id == 0 && writes) {
            note.id = header.nextNote;
        }
        if (writes) {
            header.nextNote = std::max(header.nextNote, note.id + kNoteIdStep);
        }
        std::optional<Note> present = database.note(note.id);
        const auto earlier =
            std::find_if(std::make_reverse_iterator(change), changes.rend(),
                         [&note](const NoteChange& other) { return other.note.id == note.id; });
        if (earlier != changes.rend()) {
            present =
                earlier->kind == ChangeKind::kDelete ? std::nullopt : std::optional(earlier->note);
        }
        if (change->mustBeNew && (present || database.hasUnid(note.unid))) {
            throw StatusError(kNoteExists,
                              database.file().string() + ": note " + std::to_string(note.id));
        }
        // A mark may be taken away from a note that is gone.
        if (!present &&
            (change->kind == ChangeKind::kDelete || change->kind == ChangeKind::kMarkUnread)) {
            throw StatusError(kNoSuchNote,
                              database.file().string() + ": note " + std::to_string(note.id));
        }
        if (present) {
            note.unid = present->unid;
            note.noteClass = writes ? note.noteClass : present->noteClass;
        } else if (note.unid == Id16{}) {
            note.unid = randomId16();
        }
    }
}

fs::path instanceFile(const Server& server, const Id16& dbiid) {
    return server.state / "instances" / hex(dbiid);
}

} // namespace

void writeInstance(const Server& server, const Id16& dbiid, const Id16& logId,
                   std::uint64_t record) {
    const fs::path file = instanceFile(server, dbiid);
    ByteWriter writer;
    writer.raw(logId);
    writer.u64(record);
    int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0 && errno == ENOENT) {
        fs::create_directories(file.parent_path());
        fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    }
    // One write of a few bytes: a killed process leaves the old or the new number.
    const bool written = fd >= 0 && ::pwrite(fd, writer.bytes.data(), writer.bytes.size(), 0) ==
                                        static_cast<ssize_t>(writer.bytes.size());
    const int error = errno;
    if (fd >= 0) {
        ::close(fd);
    }
    if (!written) {
        throwErrno(error, file.string());
    }
}

std::uint64_t lastRecordOf(const Server& server, const Id16& dbiid, const Id16& logId) {
    std::uint8_t bytes[24] = {};
    const int fd = ::open(instanceFile(server, dbiid).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    const ssize_t got = ::pread(fd, bytes, sizeof bytes, 0);
    ::close(fd);
    ByteReader reader(bytes);
    return got == static_cast<ssize_t>(sizeof bytes) && reader.id16() == logId ? reader.u64() : 0;
}

namespace {

void finishInFlight(const Server& server, TransactionLog& log) {
    const LogRecord& record = *log.inFlight();
    const fs::path file = server.resolve(record.database);
    if (probeDatabase(file) == kOk) {
        Database database(file, Connection::Mode::kReadWrite);
        const DatabaseHeader header = database.header();
        // Only the very next change of this very instance: anything else was replaced meanwhile.
        if (header.dbiid == record.dbiid && header.lastRecord == record.previous &&
            header.commit + 1 == record.commit) {
            SqlTransaction transaction(database.connection(), "BEGIN IMMEDIATE");
            DatabaseHeader next = header;
            applyRecord(database, next, record);
            database.writeHeader(next);
            transaction.commit();
        }
    }
    writeInstance(server, record.dbiid, log.logId(), record.number);
    log.confirm();
}

} // namespace

bool isLogged(const Server& server, const fs::path& file, const DatabaseHeader& header) {
    return header.logged && server.style != LogStyle::kNone && !isTemplate(file) &&
           server.contains(file);
}

std::unique_ptr<TransactionLog> openLog(const Server& server, const ServerLock& lock) {
    if (server.style == LogStyle::kNone) {
        return nullptr;
    }
    auto log = std::make_unique<TransactionLog>(server, lock);
    if (log->inFlight()) {
        finishInFlight(server, *log);
    }
    return log;
}

bool isOutOfStep(const Server& server, const DatabaseHeader& header, const TransactionLog& log) {
    return header.logId == log.logId() &&
           (header.lastRecord < lastRecordOf(server, header.dbiid, header.logId) ||
            header.lastRecord >= log.nextRecord());
}

DatabaseHeader adoptIntoLog(const Server& server, Database& database, const TransactionLog& log) {
    DatabaseHeader header = database.header();
    if (isLogged(server, database.file(), header) &&
        (header.logId != log.logId() || isOutOfStep(server, header, log))) {
        header.logId = log.logId();
        header.dbiid = randomId16();
        header.lastRecord = 0;
        header.lastExtent = log.activeExtent();
        database.writeHeader(header);
    }
    return header;
}

void noteBackupStart(const Server& server, Database& database, const TransactionLog& log) {
    DatabaseHeader header = adoptIntoLog(server, database, log);
    if (isLogged(server, database.file(), header) && header.lastExtent < log.activeExtent()) {
        header.lastExtent = log.activeExtent();
        database.writeHeader(header);
    }
}

void applyRecord(Database& database, DatabaseHeader& header, const LogRecord& record) {
    const std::vector<NoteChange> changes = decodeChanges(record.payload);
    database.apply(changes);
    for (const NoteChange& change : changes) {
        header.nextNote = std::max(header.nextNote, change.note.id + kNoteIdStep);
    }
    header.commit = record.commit;
    header.commitTime = record.time;
    header.lastRecord = record.number;
    header.lastExtent = record.extent;
}

Commit commitChanges(const Server& server, Database& database, std::vector<NoteChange> changes,
                     const CommitHooks& hooks) {
    const ServerLock lock(server);
    requireOnline(server, database.file());
    const std::unique_ptr<TransactionLog> log = openLog(server, lock);
    if (log) {
        adoptIntoLog(server, database, *log);
    }
    SqlTransaction transaction(database.connection(), "BEGIN IMMEDIATE");
    DatabaseHeader header = database.header();
    Commit commit;
    commit.number = ++header.commit;
    commit.time = nowInHundredths();
    header.commitTime = commit.time;
    commit.changes = std::move(changes);
    complete(database, commit.changes, header, commit.time);
    if (hooks.beforeLog) {
        hooks.beforeLog(commit);
    }
    const bool logged = isLogged(server, database.file(), header);
    if (logged) {
        LogRecord record;
        record.previous = header.lastRecord;
        record.commit = commit.number;
        record.time = commit.time;
        record.dbiid = header.dbiid;
        record.database = server.nameOf(database.file());
        record.payload = encodeChanges(commit.changes);
        log->append(record);
        commit.record = record.number;
        header.lastRecord = record.number;
        header.lastExtent = record.extent;
    } else {
        // The log no longer has all changes of this database: should it be logged again, it is a
        // new instance.
        header.logId = Id16{};
    }
    try {
        if (hooks.afterLog) {
            hooks.afterLog();
        }
        database.apply(commit.changes);
        database.writeHeader(header);
        if (hooks.beforeCommit) {
            hooks.beforeCommit();
        }
        transaction.commit();
    } catch (...) {
        if (logged) {
            log->takeBack();
        }
        throw;
    }
    if (logged) {
        writeInstance(server, header.dbiid, log->logId(), header.lastRecord);
        log->confirm();
    }
    return commit;
}

} // namespace notes_sim
