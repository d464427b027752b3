// What the sets of a differential or incremental backup hold already of the files that the module
// does not know.
#pragma once

#include "client/sets/manifest.h"
#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <cstdint>
#include <map>
#include <string>
#include <sys/stat.h>

namespace qrtln {

// What the sets have of each path: the base of a differential or incremental backup, and the sets
// of the same server since then.
class HeldFiles {
  public:
    // Nothing is held before this is called, once. `since_base`: what a set has since then does not
    // count for a file that the base has not as it is.
    void read_sets(Store& store, const std::string& base, const ServerScope& scope,
                   bool since_base);

    // Whether the newest set that has the path has it as it is now, by size and modification time,
    // or by a link's target; since the base also the base itself, but for folders.
    bool has(const ManifestItem& now, const struct stat& status) const;

    // Whether the newest item of the path is of one of the module's kinds.
    bool is_of_module(const std::string& path) const;

  private:
    struct Held {
        ItemKind kind;
        std::uint64_t size;
        std::int64_t mtime_ns;
        std::string target;
    };
    bool m_since_base = false;
    std::map<std::string, Held> m_base;
    std::map<std::string, Held> m_newest; // where that is another than the base's
};

} // namespace qrtln
