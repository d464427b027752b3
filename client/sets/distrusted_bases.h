// Full sets that no differential or incremental backup may build on any more.
//
// Such a backup selects what was changed after its base was begun. Once the clock showed a time
// before that, what was changed meanwhile looks older than the base, also when the clock is right
// again.
#pragma once

#include "client/store/store.h"

#include <set>
#include <string>

namespace qrtln {

class DistrustedBases {
  public:
    // Reads the store's list, which need not exist. One that is damaged becomes one of all full
    // sets. Throws ClientError when it cannot be read, or mended. REQUIRES: the store is locked for
    // writing.
    explicit DistrustedBases(Store& store);

    bool contains(const std::string& set) const { return m_sets.contains(set); }
    // Flushed to disk when it returns. Throws ClientError(failed).
    void add(const std::string& set);

  private:
    void write() const;

    std::string m_file;
    std::set<std::string> m_sets;
};

} // namespace qrtln
