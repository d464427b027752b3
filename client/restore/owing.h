// What a restore puts in place, written down as owed before it is there. No backup that selects
// what changed would find it: its time and identity are those of long ago.
#pragma once

#include "client/module/session.h"
#include "client/sets/owed.h"

#include <string>
#include <vector>

namespace qrtln {

// The warning that databases are put in place and not owed.
std::string not_owed_text(const std::string& reason);

class RestoreDebts {
  public:
    // `owed` may be nullptr: nothing is written down then. All must outlive this.
    RestoreDebts(const OperationContext& context, const std::string& data_directory,
                 OwedDatabases* owed)
        : m_context(context), m_data_directory(data_directory), m_owed(owed) {}

    // Where the list takes no more, a warning says so, once.
    void add(const std::string& path, std::vector<std::string>& warnings);
    // All databases of the sets: what was committed between the newest set and the loss of the logs
    // is in none, no log leads over it.
    void add_all(std::vector<std::string>& warnings);

  private:
    const OperationContext& m_context;
    const std::string& m_data_directory;
    OwedDatabases* m_owed;
};

} // namespace qrtln
