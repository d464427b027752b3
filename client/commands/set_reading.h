// How commands read every set of a store, and which of them a person wants: what cannot be read
// keeps nobody from the rest, and is told whatever is wanted.
#pragma once

#include "client/base/error.h"
#include "client/domino/point_in_time.h"
#include "client/sets/manifest.h"
#include "client/sets/set_links.h"
#include "client/store/store.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

struct UnreadSet {
    std::string set;
    std::string status; // "damaged" or "no permission"
    std::string problem;
};

class SetReading {
  public:
    // `store` outlives it. Throws ClientError when its sets cannot be listed.
    explicit SetReading(Store& store) : m_store(store), m_names(store.set_names()) {}

    const std::vector<std::string>& names() const { return m_names; } // the oldest first
    // Reads one; nothing where it is the last one of unread() then.
    std::optional<Manifest> read(const std::string& set);
    const std::vector<UnreadSet>& unread() const { return m_unread; }
    // Whether this user may read what `read` reads; what is denied is noted.
    bool permitted(const std::function<void()>& read);
    // Something else is damaged.
    void note_damage() { m_damaged = true; }

    // Tells of the sets that others name and that are not there. Returns them as JSON.
    nlohmann::json report_missing();
    // Tells of the sets that could not be read, and returns them likewise.
    nlohmann::json report_unread() const;
    // Tells what this user may not read, if there is anything.
    void report_denied() const;
    // What the store's state makes of the exit code of a command that did what it had to.
    int exit_code(ExitCode otherwise = ExitCode::complete) const;

  private:
    Store& m_store;
    const std::vector<std::string> m_names;
    SetLinks m_links;
    std::vector<UnreadSet> m_unread;
    bool m_damaged = false;              // a manifest is, or a set is missing
    std::optional<ClientError> m_denied; // the first that this user may not read
    std::string m_reason;                // of the last one
};

struct SetFilterOptions {
    std::string server;
    std::string level;
    std::string since;
    std::string until;
};

// --server, --since and --until, bound to the options; with `level` --level, too.
void add_set_filter(CLI::App& command, SetFilterOptions& options, bool level);

class SetFilter {
  public:
    // Throws ClientError(usage) for times that cannot be read, or that leave nothing between them.
    explicit SetFilter(const SetFilterOptions& options);
    bool takes(const Manifest& manifest);
    // Throws ClientError(failed) where a server was named that no set which was looked at is of.
    void require_server(const Store& store) const;

  private:
    const SetFilterOptions& m_options;
    std::optional<Moment> m_since;
    std::optional<Moment> m_until;
    bool m_server_met = false;
};

} // namespace qrtln
