// The journal of a recovery while it runs: each step is written down before, or as soon as, a
// second run must know of it.
#pragma once

#include "client/recovery/journal.h"
#include "client/recovery/outcomes.h"
#include "client/recovery/plan.h"
#include "client/sets/owed.h"

#include <optional>
#include <string>
#include <vector>

namespace qrtln {

class JournalKeeper {
  public:
    // `journal` is what an earlier run left of the same recovery. The file must outlive this.
    JournalKeeper(const RecoveryJournalFile& file, const std::optional<RecoveryJournal>& journal)
        : m_file(file), m_journal(journal.value_or(RecoveryJournal{})),
          m_resumed(journal.has_value()) {}

    const RecoveryJournal& journal() const { return m_journal; }
    // Whether an earlier run left it.
    bool resumed() const { return m_resumed; }
    // Whether this run wrote it, and no earlier one.
    bool is_of_this_run() const { return m_began && !m_resumed; }

    // Where the restored copy lies until the server has rolled it forward: an absolute path.
    std::string copy_of(const RecoveryPlan& plan, const RecoveringDatabase& database) const;
    // Whether the original was lost, so that a place without its owner and mode was made, now or by
    // an earlier run.
    bool was_lost(const std::string& path) const;
    // Why a database may not be what was asked for although it is rolled forward; empty when it is.
    std::string doubt_about(const RecoveringDatabase& database) const;

    // Not written down yet: the next of the calls below does that.
    void set_pending_folder(const std::string& folder) { m_journal.pending_folder = folder; }
    // A database that an earlier run put in its place, unless it is noted already; likewise.
    void note_in_place(const DoneDatabase& database);

    // Writes down the request and the plan, before anything is restored. `told` are the outcomes so
    // far; `owed` may be nullptr for what puts nothing in place. Throws ClientError, as all below.
    void begin_round(const RecoveryRequest& request, const RecoveryPlan& plan,
                     const std::vector<DatabaseRecovery>& told, const OwedDatabases* owed);
    // Writes down that the server is told to recover, with the copies that are there and, in place,
    // their second names, which are flushed before.
    void begin_roll_forward(const RecoveryPlan& plan, const std::vector<DatabaseRecovery>& told,
                            const OwedDatabases* owed);
    // Strikes out what these outcomes say is in its place, and removes its second name.
    void strike_what_is_in_place(const std::vector<DatabaseRecovery>& told);
    // Removes what the recovery has on the server; the journal goes after it. Returns warnings.
    std::vector<std::string> remove_leftovers() const;
    void remove_journal() const { m_file.remove(); }

  private:
    void list_databases(const RecoveryPlan& plan, const std::vector<DatabaseRecovery>& told,
                        const OwedDatabases* owed);
    PendingDatabase entry_for(const RecoveryPlan& plan, const RecoveringDatabase& database,
                              const OwedDatabases* owed) const;
    void list_extents(const RecoveryPlan& plan);
    void name_copies_twice();
    bool ends_early() const;

    const RecoveryJournalFile& m_file;
    RecoveryJournal m_journal;
    bool m_resumed;
    bool m_began = false;
};

} // namespace qrtln
