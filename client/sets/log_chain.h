// The chain of transaction logs that rolls a restored server forward: the logs of all sets from a
// full one on, checked for gaps.
#pragma once

#include "client/sets/manifest.h"
#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

// What the stored logs tell about the size of an extent, by archive: in bytes, that of the largest
// log that was full. All full extents of one log have the same.
class ExtentSizes {
  public:
    void add(const std::vector<ManifestItem>& items);
    void add(const ExtentSizes& others);
    // 0: not known.
    std::uint64_t of(const LogIdentity& log) const;

  private:
    void add(const LogIdentity& log, std::uint64_t size);

    std::vector<std::pair<LogIdentity, std::uint64_t>> m_sizes; // in bytes
};

// The logs of one set.
struct ChainLink {
    std::string set;
    std::vector<LogIdentity> logs;
    ExtentSizes extent_sizes = {};
};

// The gaps in a chain, oldest link first. A number is covered by a log that was full when it was
// stored. The copy of an active one is partial, so its number must come again in a later link;
// until there is one, the server has it. Logs that come again do no harm, and numbers wrap. Another
// archive identity begins a new log: a break of its own. So is a first link without logs when later
// ones have some.
std::vector<LogGap> find_log_gaps(const std::vector<ChainLink>& chain);

// "the logs 5 to 7 are missing between the sets A and B".
std::string describe(const LogGap& gap);

// The links from the set `base` on: it, and each later set of the same server that holds logs,
// complete or not. A set whose manifest is damaged is left out, so that its logs are found missing.
std::vector<ChainLink> load_log_chain(Store& store, const std::string& base,
                                      const ServerScope& scope);

// A link of a set's own.
ChainLink chain_link(const Manifest& manifest);

// The stored logs of a set.
std::vector<LogIdentity> stored_logs(const Manifest& manifest);

// "3-7, 7 active", or "-" without stored logs.
std::string log_range_text(const Manifest& manifest);

// {"first": 3, "last": 7, "active": 7}, null where there is none.
nlohmann::json log_range_json(const Manifest& manifest);

} // namespace qrtln
