// What a recovery has under way on the server, written down so that a second run goes on with it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

// A restored copy that waits to be rolled forward and put in place.
struct PendingDatabase {
    std::string path;  // of the original
    std::string copy;  // the restored file, below the pending folder; empty while it is not there
    bool lost = false; // there was no original: what takes its place needs owner and mode
};

struct RecoveryJournal {
    // The request, as the command had it.
    std::string data_directory;
    std::vector<std::string> names;
    bool all = false;
    std::optional<std::int64_t> to; // seconds since 1970
    std::string into;
    bool new_dbiid = false;
    // What it has done.
    std::string pending_folder;             // where copies wait; empty with `into`
    bool recovering = false;                // the server was told to recover, at least once
    bool log_folder_lost = false;           // the logs come from the store alone
    std::optional<std::int64_t> logs_end;   // and reach up to here, seconds since 1970
    std::vector<PendingDatabase> databases; // that are not known to be in place
    std::vector<std::string> extents;       // transaction logs that it put back on the server

    // Nullptr for one that is not listed.
    const PendingDatabase* entry_of(const std::string& path) const;
    // Whether an earlier run of this recovery put the database in its place, as far as this and the
    // files beside it tell.
    bool was_put_in_place(const std::string& path) const;
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

// Makes a folder for restored copies, or a scratch folder for a proof. Throws ClientError(failed).
std::string make_pending_folder(const std::string& tmp_dir, const std::string& data_directory);
std::string make_folder_for_proof(const std::string& tmp_dir, const std::string& data_directory);

// Takes back what an unfinished recovery has on the server: copies that wait, and logs. Returns
// warnings about what could not be removed.
std::vector<std::string> abandon_recovery(const RecoveryJournal& journal);

} // namespace qrtln
