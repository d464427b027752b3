// The documents that a restore of changed ones is about to delete from a live database, or has
// deleted and not replaced: until they are back no other such restore may delete more.
#pragma once

#include "client/domino/note_ids.h"
#include "client/store/store.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

struct LostDocuments {
    std::string data_directory;
    std::string path;       // of the live database
    std::string set;        // that has them
    std::int64_t since = 0; // a minute before their deletion, seconds since 1970
    std::vector<NoteId> ids;
};

// The note of them, in the store's folder of run-time data: one entry a database.
class LostDocumentsFile {
  public:
    // Reads it; it need not exist. Throws ClientError(failed) for one that is damaged.
    explicit LostDocumentsFile(const Store& store);

    std::optional<LostDocuments> of(const std::string& data_directory,
                                    const std::string& path) const;

    // The sets that have documents which are not back.
    std::vector<std::string> sets() const;

    // Puts this entry in the place of the database's one, or removes that when it has no ids;
    // flushed to disk before it returns. Throws ClientError(failed), and then the live database
    // must not be touched. REQUIRES: the store is locked for writing.
    void put(const LostDocuments& lost);

  private:
    std::string m_file;
    std::vector<LostDocuments> m_entries;
};

} // namespace qrtln
