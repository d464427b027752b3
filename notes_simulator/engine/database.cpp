#include "notes_simulator/engine/database.h"

#include "notes_simulator/base/files.h"
#include "notes_simulator/base/status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

constexpr std::uint32_t kApplicationId = 0x4E534D31; // "NSM1", at byte 68 of the file
constexpr std::size_t kProbeLength = 72;

constexpr const char* kSchema = R"sql(
CREATE TABLE header(
    id INTEGER PRIMARY KEY CHECK(id = 1),
    replica BLOB NOT NULL, dbid BLOB NOT NULL, dbiid BLOB NOT NULL, log_id BLOB NOT NULL,
    logged INTEGER NOT NULL, last_record INTEGER NOT NULL, last_extent INTEGER NOT NULL,
    commit_number INTEGER NOT NULL, next_note INTEGER NOT NULL, title TEXT NOT NULL,
    commit_time INTEGER NOT NULL);
CREATE TABLE notes(
    note_id INTEGER PRIMARY KEY, unid BLOB NOT NULL UNIQUE, class INTEGER NOT NULL,
    modified INTEGER NOT NULL, subject TEXT NOT NULL, body BLOB NOT NULL);
CREATE INDEX notes_by_time ON notes(modified, class);
CREATE INDEX notes_by_subject ON notes(subject);
CREATE TABLE stubs(
    note_id INTEGER PRIMARY KEY, unid BLOB NOT NULL UNIQUE, class INTEGER NOT NULL,
    deleted INTEGER NOT NULL);
CREATE INDEX stubs_by_time ON stubs(deleted, class);
CREATE TABLE unread(
    user TEXT NOT NULL, note_id INTEGER NOT NULL, PRIMARY KEY(user, note_id)) WITHOUT ROWID;
)sql";

const fs::path& probed(const fs::path& file) {
    const Status status = probeDatabase(file);
    if (status != kOk) {
        throw StatusError(status, file.string());
    }
    return file;
}

void bindHeader(Statement& statement, const DatabaseHeader& header) {
    statement.bind(1, header.replica)
        .bind(2, header.dbid)
        .bind(3, header.dbiid)
        .bind(4, header.logId)
        .bind(5, header.logged ? 1 : 0)
        .bind(6, static_cast<std::int64_t>(header.lastRecord))
        .bind(7, static_cast<std::int64_t>(header.lastExtent))
        .bind(8, static_cast<std::int64_t>(header.commit))
        .bind(9, static_cast<std::int64_t>(header.nextNote))
        .bindText(10, header.title)
        .bind(11, header.commitTime);
}

Id8 id8(const Bytes& bytes) {
    Id8 id{};
    std::copy_n(bytes.begin(), std::min(bytes.size(), id.size()), id.begin());
    return id;
}

} // namespace

Bytes encodeChanges(const std::vector<NoteChange>& changes) {
    ByteWriter writer;
    writer.u32(static_cast<std::uint32_t>(changes.size()));
    for (const NoteChange& change : changes) {
        writer.u16(static_cast<std::uint16_t>(change.kind));
        writer.u16(change.note.noteClass);
        writer.u32(change.note.id);
        writer.raw(change.note.unid);
        writer.u64(static_cast<std::uint64_t>(change.note.modified));
        writer.u32(static_cast<std::uint32_t>(change.note.subject.size()));
        writer.u32(static_cast<std::uint32_t>(change.note.body.size()));
        writer.text(change.note.subject);
        writer.raw(change.note.body);
    }
    return writer.bytes;
}

std::vector<NoteChange> decodeChanges(std::span<const std::uint8_t> payload) try {
    ByteReader reader(payload);
    std::vector<NoteChange> changes;
    for (std::uint32_t left = reader.u32(); left > 0; --left) {
        NoteChange change;
        const std::uint16_t kind = reader.u16();
        if (kind > static_cast<std::uint16_t>(ChangeKind::kMarkRead)) {
            throw StatusError(kLogDamaged, "kind of a change");
        }
        change.kind = static_cast<ChangeKind>(kind);
        change.note.noteClass = reader.u16();
        change.note.id = reader.u32();
        change.note.unid = reader.id16();
        change.note.modified = static_cast<std::int64_t>(reader.u64());
        const std::uint32_t subject = reader.u32();
        const std::uint32_t body = reader.u32();
        change.note.subject = reader.text(subject);
        const auto bytes = reader.raw(body);
        change.note.body.assign(bytes.begin(), bytes.end());
        changes.push_back(std::move(change));
    }
    return changes;
} catch (const std::out_of_range&) {
    throw StatusError(kLogDamaged, "changes of a log record");
}

bool isTemplate(const fs::path& file) {
    return ::strcasecmp(file.extension().c_str(), ".ntf") == 0;
}

Status probeDatabase(const fs::path& file) {
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        return errno == EACCES ? kAccessDenied : kNoSuchFile;
    }
    if (!S_ISREG(info.st_mode)) {
        return kNotADatabase;
    }
    if (readingDenied(file)) {
        return kAccessDenied;
    }
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno == ENOENT ? kNoSuchFile : kAccessDenied;
    }
    std::uint8_t bytes[kProbeLength] = {};
    const ssize_t got = ::pread(fd, bytes, sizeof bytes, 0);
    ::close(fd);
    static constexpr char kMagic[] = "SQLite format 3";
    const std::uint8_t* id = bytes + 68;
    const std::uint32_t application = static_cast<std::uint32_t>(id[0]) << 24 |
                                      static_cast<std::uint32_t>(id[1]) << 16 |
                                      static_cast<std::uint32_t>(id[2]) << 8 | id[3];
    return got == static_cast<ssize_t>(sizeof bytes) &&
                   std::memcmp(bytes, kMagic, sizeof kMagic) == 0 && application == kApplicationId
               ? kOk
               : kNotADatabase;
}

fs::path linkedDatabase(const fs::path& file) {
    constexpr std::size_t longestPath = 4096;
    std::error_code error;
    if (!fs::is_regular_file(file, error)) {
        return file;
    }
    std::ifstream stream(file);
    std::string line(longestPath, '\0');
    stream.read(line.data(), static_cast<std::streamsize>(line.size()));
    line.resize(static_cast<std::size_t>(stream.gcount()));
    line.resize(std::min(line.size(), line.find_first_of("\r\n")));
    const bool leads = line.starts_with('/') && line.find('\0') == std::string::npos;
    return leads ? fs::path(line) : file;
}

Database::Database(const fs::path& file, Connection::Mode mode)
    : m_file(file), m_connection(probed(file), mode) {}

void Database::create(const fs::path& file, const DatabaseHeader& header,
                      std::vector<NoteChange> notes) {
    std::error_code error;
    if (fs::exists(file, error)) {
        throw StatusError(kInvalidArgument, file.string() + " exists already");
    }
    Connection connection(file, Connection::Mode::kCreate);
    connection.run(("PRAGMA application_id=" + std::to_string(kApplicationId)).c_str());
    SqlTransaction transaction(connection, "BEGIN IMMEDIATE");
    connection.run(kSchema);
    DatabaseHeader full = header;
    for (NoteChange& change : notes) {
        change.note.id = full.nextNote;
        full.nextNote += kNoteIdStep;
    }
    Statement insert(connection, "INSERT INTO header VALUES(1,?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11)");
    bindHeader(insert, full);
    insert.run();
    Statement put(connection, "INSERT INTO notes VALUES(?1,?2,?3,?4,?5,?6)");
    for (const NoteChange& change : notes) {
        put.bind(1, static_cast<std::int64_t>(change.note.id))
            .bind(2, change.note.unid)
            .bind(3, change.note.noteClass)
            .bind(4, change.note.modified)
            .bindText(5, change.note.subject)
            .bind(6, change.note.body);
        put.run();
    }
    transaction.commit();
}

DatabaseHeader Database::header() {
    Statement read(m_connection, "SELECT replica,dbid,dbiid,log_id,logged,last_record,last_extent,"
                                 "commit_number,next_note,title,commit_time FROM header");
    if (!read.step()) {
        throw StatusError(kDatabaseDamaged, m_file.string());
    }
    DatabaseHeader header;
    header.replica = id8(read.blob(0));
    header.dbid = id8(read.blob(1));
    header.dbiid = read.id16(2);
    header.logId = read.id16(3);
    header.logged = read.integer(4) != 0;
    header.lastRecord = static_cast<std::uint64_t>(read.integer(5));
    header.lastExtent = static_cast<std::uint32_t>(read.integer(6));
    header.commit = static_cast<std::uint64_t>(read.integer(7));
    header.nextNote = static_cast<NoteId>(read.integer(8));
    header.title = read.text(9);
    header.commitTime = read.integer(10);
    return header;
}

void Database::writeHeader(const DatabaseHeader& header) {
    Statement write(m_connection,
                    "UPDATE header SET replica=?1,dbid=?2,dbiid=?3,log_id=?4,logged=?5,"
                    "last_record=?6,last_extent=?7,commit_number=?8,next_note=?9,title=?10,"
                    "commit_time=?11");
    bindHeader(write, header);
    write.run();
}

void Database::apply(const std::vector<NoteChange>& changes) {
    Statement put(m_connection, "INSERT OR REPLACE INTO notes VALUES(?1,?2,?3,?4,?5,?6)");
    Statement revive(m_connection, "DELETE FROM stubs WHERE note_id=?1 OR unid=?2");
    Statement remove(m_connection, "DELETE FROM notes WHERE note_id=?1");
    Statement stub(m_connection, "INSERT OR REPLACE INTO stubs VALUES(?1,?2,?3,?4)");
    Statement unread(m_connection, "INSERT OR IGNORE INTO unread VALUES(?1,?2)");
    Statement read(m_connection, "DELETE FROM unread WHERE user=?1 AND note_id=?2");
    for (const NoteChange& change : changes) {
        const auto id = static_cast<std::int64_t>(change.note.id);
        switch (change.kind) {
        case ChangeKind::kMarkUnread:
            unread.bindText(1, change.note.subject).bind(2, id).run();
            break;
        case ChangeKind::kMarkRead:
            read.bindText(1, change.note.subject).bind(2, id).run();
            break;
        case ChangeKind::kDelete:
            remove.bind(1, id).run();
            stub.bind(1, id)
                .bind(2, change.note.unid)
                .bind(3, change.note.noteClass)
                .bind(4, change.note.modified)
                .run();
            break;
        case ChangeKind::kWrite:
            revive.bind(1, id).bind(2, change.note.unid).run();
            put.bind(1, id)
                .bind(2, change.note.unid)
                .bind(3, change.note.noteClass)
                .bind(4, change.note.modified)
                .bindText(5, change.note.subject)
                .bind(6, change.note.body)
                .run();
            break;
        }
    }
}

std::optional<Note> Database::note(NoteId id) {
    Statement read(m_connection,
                   "SELECT note_id,unid,class,modified,subject,body FROM notes WHERE note_id=?1");
    read.bind(1, static_cast<std::int64_t>(id));
    if (!read.step()) {
        return std::nullopt;
    }
    return Note{
        id,           read.id16(1), static_cast<std::uint16_t>(read.integer(2)), read.integer(3),
        read.text(4), read.blob(5)};
}

void Database::eachNote(const std::function<void(const Note&)>& visit) {
    Statement read(m_connection,
                   "SELECT note_id,unid,class,modified,subject,body FROM notes ORDER BY note_id");
    while (read.step()) {
        visit({static_cast<NoteId>(read.integer(0)), read.id16(1),
               static_cast<std::uint16_t>(read.integer(2)), read.integer(3), read.text(4),
               read.blob(5)});
    }
}

void Database::eachStub(const std::function<void(const Stub&)>& visit) {
    Statement read(m_connection, "SELECT note_id,unid,class,deleted FROM stubs ORDER BY note_id");
    while (read.step()) {
        visit({static_cast<NoteId>(read.integer(0)), read.id16(1),
               static_cast<std::uint16_t>(read.integer(2)), read.integer(3)});
    }
}

std::vector<NoteId> Database::unreadOf(const std::string& user) {
    Statement read(m_connection, "SELECT note_id FROM unread WHERE user=?1 ORDER BY note_id");
    read.bindText(1, user);
    std::vector<NoteId> ids;
    while (read.step()) {
        ids.push_back(static_cast<NoteId>(read.integer(0)));
    }
    return ids;
}

bool Database::hasUnid(const Id16& unid) {
    Statement read(m_connection, "SELECT 1 FROM notes WHERE unid=?1");
    read.bind(1, unid);
    return read.step();
}

std::vector<NoteId> Database::modifiedSince(std::int64_t since, std::uint16_t classMask) {
    Statement read(m_connection,
                   "SELECT note_id FROM notes WHERE modified>=?1 AND (class&?2)<>0 UNION ALL "
                   "SELECT note_id|0x80000000 FROM stubs WHERE deleted>=?1 AND (class&?2)<>0 "
                   "ORDER BY 1");
    read.bind(1, since).bind(2, classMask);
    std::vector<NoteId> ids;
    while (read.step()) {
        ids.push_back(static_cast<NoteId>(read.integer(0)));
    }
    return ids;
}

} // namespace notes_sim
