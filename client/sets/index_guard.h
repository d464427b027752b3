// Whether the module's index of database instances is the one that the newest backup left.
//
// An entry that is lost from the index means a database that is silently not saved: a differential
// or incremental backup selects a database by comparing its entry, and one without an entry is left
// out. So each set that may change the index leaves a note of its hash beside it.
#pragma once

#include "client/base/file_io.h"
#include "client/store/store.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qrtln {

// What a set notes of the index. A hash is empty where there is no index.
struct IndexNote {
    std::string set;
    std::vector<std::string>
        hashes; // one; two while the close of its backup is not known to be over
    // Data directories whose entries are complete in the index of the first hash, and of the
    // second.
    std::vector<std::string> servers;
    std::vector<std::string> servers_after;
};

// What a backup does to the index.
struct IndexChange {
    std::string data_directory = {};
    pid_t child = 0;          // the process of the module
    std::string folder = {};  // of its run-time data; empty: the store's
    bool whole_full = false;  // the set is a complete full one of the whole server
    bool has_entries = false; // the module said that it wrote some
    bool begun_anew = false;  // it could not read the index, and wrote a new one
};

// What is wrong with the note beside a set; empty when nothing is, or there is none.
std::string index_note_problem(Store& store, const std::string& set);

// The index in a folder of run-time data, and how large it may be.
inline constexpr const char* index_name = "/qrtln_DBIID.ini";
inline constexpr std::size_t maximal_index = std::size_t{1} << 30;

// Whether the module's index can have an entry for a database: each is a line "PATH=…", and of the
// path no more than 256 bytes, as the server translates it.
bool fits_index(const std::string& path);

class IndexGuard {
  public:
    // Reads the newest note of a server's sets, by its name in the store, and its index in the
    // store's present folder of run-time data. REQUIRES: nobody changes the index meanwhile.
    IndexGuard(Store& store, const std::string& server);

    // What is wrong with the index, or with the newest note; empty: nothing, or there is no note
    // yet.
    const std::string& problem() const { return m_problem; }
    // Why differential and incremental backups of this server must not rely on it; empty: they may.
    std::string problem_for(const std::string& data_directory) const;

    // Puts an index with a problem aside, beside itself as "*.damaged", for a full backup to begin
    // a new one. Throws ClientError(failed).
    void set_aside();

    // Whether a set left a note.
    bool has_note() const { return m_note.has_value(); }

    // To be called when a set is committed, right before the module's operation is closed with
    // success: notes the index as it is, and as the module's working copy will make it. Throws
    // ClientError; then the operation must not be closed with success.
    void expect_close(const std::string& set, const IndexChange& change);
    // To be called after the close; `closed`: the module said that all went well. Where the module
    // had a copy of the index to work on, the store takes it back, if it is the one that was
    // expected. Returns what is wrong when the close did not leave that index: then the server's
    // entries are not complete. Throws ClientError when the index cannot be read.
    std::string check_closed(const std::string& set, const std::string& data_directory,
                             bool closed);
    // To be called after that: writes down that only the index as it is counts from now on. Throws
    // ClientError: then the note of before the close stays, which holds for both sides of it.
    void note_closed(const std::string& set);

  private:
    std::string hash_of_index() const;
    void take_index_back();
    void flush_folder() const;

    Store& m_store;
    std::string m_file;
    std::string m_lent; // the index that the module works on, where that is not the store's
    std::vector<std::string> m_servers_before; // of the note, were the close to fail
    std::optional<IndexNote> m_note;           // the newest
    bool m_unwritten = false;                  // what the last check found is not in it
    std::string m_problem;
};

} // namespace qrtln
