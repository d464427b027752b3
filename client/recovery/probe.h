// What the server says of live databases before a recovery touches them: whether it can open each,
// and which instance each is.
#pragma once

#include "client/module/session.h"

#include <map>
#include <string>
#include <vector>

namespace qrtln {

struct LiveDatabase {
    enum class State {
        not_asked,
        logged,     // open to the server, and transaction-logged: `dbiid`
        not_logged, // open to the server
        untold,     // the server told nothing of its instance: `reason`
        unopenable, // the server cannot open it: `reason`
    };
    State state = State::untold;
    std::string dbiid; // as in a set's manifest
    std::string reason;
};

// The answers for one command, each database asked once.
class LiveDatabases {
  public:
    // Both must outlive it.
    explicit LiveDatabases(const OperationContext& context) : m_context(context) {}

    // Asks about those that were not asked before: full paths of databases that exist. Nothing is
    // copied, nothing counts as backed up by it, and nothing of the store is written. Throws
    // ClientError(server_error) when the server cannot be asked.
    void ask(const std::vector<std::string>& paths);
    // Nullptr for one that was not asked.
    const LiveDatabase* find(const std::string& path) const;

  private:
    void ask_together(const std::vector<std::string>& paths);
    void ask_server(const std::vector<std::string>& paths, bool& started);

    const OperationContext& m_context;
    std::map<std::string, LiveDatabase> m_known;
};

} // namespace qrtln
