// Whether the module's index of database instances is the one that the newest backup left.
//
// An entry that is lost from the index means a database that is silently not saved: a differential
// or incremental backup selects a database by comparing its entry, and one without an entry is left
// out. So each set that may change the index leaves a note of its hash beside it.
#pragma once

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
    std::vector<std::string> servers; // data directories whose entries are complete in it
};

// What is wrong with the note beside a set; empty when nothing is, or there is none.
std::string index_note_problem(Store& store, const std::string& set);

class IndexGuard {
  public:
    // Reads the newest note and the index. REQUIRES: nobody changes the index meanwhile.
    explicit IndexGuard(Store& store);

    // What is wrong with the index, or with the newest note; empty: nothing, or there is no note
    // yet.
    const std::string& problem() const { return m_problem; }
    // Why differential and incremental backups of this server must not rely on it; empty: they may.
    std::string problem_for(const std::string& data_directory) const;

    // Puts an index with a problem aside, beside itself as "*.damaged", for a full backup to begin
    // a new one. Throws ClientError(failed).
    void set_aside();

    // To be called when a set is committed, right before the module's operation is closed with
    // success: notes the index as it is, and as the working copy of the process `child` will make
    // it. `whole_full`: the set is a complete full one of the whole server. Throws ClientError.
    void expect_close(const std::string& set, pid_t child, const std::string& data_directory,
                      bool whole_full);
    // To be called after the close: from now on only the index as it is counts. Throws ClientError.
    void note_closed(const std::string& set);

  private:
    std::string hash_of_index() const;

    Store& m_store;
    std::string m_file;
    std::optional<IndexNote> m_note; // the newest
    std::string m_problem;
};

} // namespace qrtln
