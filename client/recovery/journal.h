// What a recovery has under way on the server, written down so that a second run goes on with it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

// What lies at a path, to see whether it changed.
struct FileState {
    bool there = false;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t mtime_ns = 0; // nanoseconds since 1970
    bool operator==(const FileState&) const = default;
};
FileState file_state(const std::string& path);

// A restored copy that waits to be rolled forward and put in place.
struct PendingDatabase {
    std::string path; // of the original
    std::string copy; // the restored file, below the pending folder; empty while it is not there
    // A second name of the copy, which the server does not know: a copy that went without it was
    // put in place, one that went with it was cleaned away. Empty where there are no hard links.
    std::string link = {};
    // Of the original, when the server was told to recover; nothing before that, and when it has
    // told that the copy is not in its place.
    std::optional<FileState> before = {};
    bool lost = false;      // there was no original: what takes its place needs owner and mode
    bool owed = false;      // this recovery noted that the store is to be owed the database
    std::string doubt = {}; // why it may fall short once it is in its place; else empty
    std::string set = {};   // that the copy is from
};

struct DoneDatabase {
    std::string path;
    std::string shortfall; // why it fell short; else empty
    std::string set;       // that it came from; empty: not known
};

// A transaction log that was put back on the server.
struct PutBackLog {
    std::string path;
    std::string object; // its content; empty: not known
    bool operator==(const PutBackLog&) const = default;
};

// Where a recovery left a database. What is in its place is noted positively; after a kill it is
// concluded from the copy's second name and from the place itself, never from absence alone.
enum class DatabaseState {
    // State     what the journal and the files say                       what a second run does
    not_listed, // neither list has it                                    restores and recovers it
    to_restore, // `databases` has it, no copy is named, or the server    restores the copy
                // was told nothing when the copy went
    copy_waits, // its copy is there, perhaps half written                checks it, uses it if
                // whole
    copy_lost,  // its copy is gone, its link too or the original is      restores the copy again
                // as it was `before`
    in_place, // `done` has it, or: its copy is gone, its link is       leaves it alone, unless the
              // there, the original is not as it was `before`          server cannot open it
};

struct RecoveryJournal {
    // The request, as the command had it.
    std::string data_directory;
    std::vector<std::string> names;
    bool all = false;
    std::optional<std::int64_t> to; // seconds since 1970
    std::string into;
    bool new_dbiid = false;
    bool replace_live = false;
    bool logs_lost = false;
    std::string from_server; // as the options say it
    std::string moved;       // likewise
    // What it has done.
    std::string pending_folder;             // where copies wait; empty with `into`
    bool recovering = false;                // the server was told to recover, at least once
    bool log_folder_lost = false;           // the logs come from the store alone
    std::optional<std::int64_t> logs_end;   // and reach up to here, seconds since 1970
    std::vector<PendingDatabase> databases; // that are not known to be in place
    std::vector<DoneDatabase> done;         // that are
    std::vector<PutBackLog> extents;        // or about to be

    // Nullptr for one that is not listed.
    const PendingDatabase* entry_of(const std::string& path) const;
    const DoneDatabase* done_of(const std::string& path) const;
    // Where an earlier run of this recovery left the database. Looks at the files that are named.
    DatabaseState state_of(const std::string& path) const;
};

// The journal of one store, a file in its folder of run-time data. REQUIRES: the store is locked.
class RecoveryJournalFile {
  public:
    explicit RecoveryJournalFile(std::string file) : m_file(std::move(file)) {}

    // Nothing when there is none. Throws ClientError(failed) for one that is damaged.
    std::optional<RecoveryJournal> read() const;
    // Replaces it so that a crash leaves the old or the new one, flushed. Throws ClientError.
    void write(const RecoveryJournal& journal) const;
    // Throws ClientError(failed).
    void remove() const;

  private:
    std::string m_file;
};

} // namespace qrtln
