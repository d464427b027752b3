// One database: a SQLite file with notes, deletion stubs and unread marks.
// docs/simulator-files.md has the tables.
#pragma once

#include "notes_simulator/base/byte_codec.h"
#include "notes_simulator/server/server.h"
#include "notes_simulator/storage/sql.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace notes_sim {

using NoteId = std::uint32_t;

constexpr std::uint16_t kDocumentClass = 1;
constexpr NoteId kFirstNoteId = 0x8F6;
constexpr NoteId kNoteIdStep = 4;

/// The one row that describes a database.
struct DatabaseHeader {
    Id8 replica{};
    Id8 dbid{};
    Id16 dbiid{};
    Id16 logId{};                 ///< the log that has its changes; zero when none has
    bool logged = false;          ///< whether it is meant to be logged
    std::uint64_t lastRecord = 0; ///< number of the last log record applied
    std::uint32_t lastExtent = 0; ///< what the log has beyond lies in this extent or later ones
    std::uint64_t commit = 0;     ///< grows by one with each committed transaction
    std::int64_t commitTime = 0;  ///< of that commit, hundredths of a second since 1970, GMT
    NoteId nextNote = kFirstNoteId;
    std::string title;
};

/// One note as it is stored.
struct Note {
    NoteId id = 0;
    Id16 unid{};
    std::uint16_t noteClass = kDocumentClass;
    std::int64_t modified = 0; ///< hundredths of a second since 1970, GMT
    std::string subject;
    Bytes body;
};

/// What remains of a deleted note.
struct Stub {
    NoteId id = 0;
    Id16 unid{};
    std::uint16_t noteClass = kDocumentClass;
    std::int64_t deleted = 0;
};

/// What one step of a transaction does. The numbers are those of the log.
enum class ChangeKind : std::uint16_t {
    kWrite = 0,      ///< the note is written whole
    kDelete = 1,     ///< the note leaves a stub; modified is the time of the deletion
    kMarkUnread = 2, ///< the note becomes unread for the user that subject names
    kMarkRead = 3,   ///< the note is no longer unread for the user that subject names
};

/// One step of a transaction. Kinds other than kWrite use of the note what they say, and its id,
/// unid and noteClass.
struct NoteChange {
    ChangeKind kind = ChangeKind::kWrite;
    Note note;
    bool mustBeNew = false; ///< a write fails when the note id or the unid is taken; not logged
};

/// The payload of a log record.
Bytes encodeChanges(const std::vector<NoteChange>& changes);
/// The inverse. Throws StatusError(kLogDamaged).
std::vector<NoteChange> decodeChanges(std::span<const std::uint8_t> payload);

/// Whether the file's name ends in .ntf, whatever the case.
bool isTemplate(const std::filesystem::path& file);

/// Looks at a file without SQLite: kOk for a database, else kNoSuchFile, kAccessDenied or
/// kNotADatabase. Changes nothing.
std::uint16_t probeDatabase(const std::filesystem::path& file);

/// The database that the file leads to when it is a database link: a text file whose first line is
/// a full path. Any other file itself.
std::filesystem::path linkedDatabase(const std::filesystem::path& file);

/// An open database. It holds SQLite locks only during its transactions.
class Database {
  public:
    /// Opens an existing one. Throws StatusError with what probeDatabase says.
    Database(const std::filesystem::path& file, Connection::Mode mode);

    /// Creates a database with these notes; their ids are given out from kFirstNoteId on. Throws
    /// StatusError(kInvalidArgument) when the file exists.
    static void create(const std::filesystem::path& file, const DatabaseHeader& header,
                       std::vector<NoteChange> notes);

    DatabaseHeader header();
    void writeHeader(const DatabaseHeader& header);

    /// Writes changes into the tables; belongs inside a transaction of connection().
    void apply(const std::vector<NoteChange>& changes);

    std::optional<Note> note(NoteId id);
    /// Every note and every stub in the order of their ids.
    void eachNote(const std::function<void(const Note&)>& visit);
    void eachStub(const std::function<void(const Stub&)>& visit);

    /// The notes that are marked unread for a user, in the order of their ids.
    std::vector<NoteId> unreadOf(const std::string& user);
    /// Whether a note has this universal id.
    bool hasUnid(const Id16& unid);

    /// Ids of the notes of these classes changed at or after since; ids of deleted ones carry
    /// 0x80000000. In the order of the ids.
    std::vector<NoteId> modifiedSince(std::int64_t since, std::uint16_t classMask);

    Connection& connection() { return m_connection; }
    const std::filesystem::path& file() const { return m_file; }

  private:
    std::filesystem::path m_file;
    Connection m_connection;
};

constexpr NoteId kDeletedNoteFlag = 0x80000000;

} // namespace notes_sim
