// The ledger of recoverability: of each database of a store to which moments it can be brought
// back, by what the store has alone, and what is wrong with that.
#pragma once

#include "client/base/error.h"
#include "client/recovery/instances.h"
#include "client/sets/proof_record.h"
#include "client/store/store.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

struct NotesIni;

// All times are seconds since 1970.

// Moments to which a database can be recovered, both ends included.
struct Window {
    std::int64_t from = 0;
    std::int64_t until = 0;
    bool any_moment = false; // else it is one moment: a copy, as it was saved
};

// Moments between these to which it cannot.
struct CoverageGap {
    std::int64_t from = 0;
    std::int64_t until = 0; // of one that is open: when the ledger was made
    bool is_open = false;   // nothing newer ends it
    std::string why;
};

// In the order of how bad it is.
enum class LedgerState {
    recoverable,
    deleted,  // on the server, as far as the newest set of all of it or a look at it tells
    left_out, // no set has it, as somebody said that it may be missing
    too_old,
    restored, // a restore put it in place, and no set has what it is since then
    never_saved,
    damaged, // the newest copy, and no other leads to the same end
    gap,     // the logs do not lead on from its newest copy
};
const char* state_name(LedgerState state);

struct LastProof {
    std::int64_t time = 0;
    std::string set;
    bool proven = false;
    std::string reason; // why not
};

struct DatabaseLedger {
    std::string path; // full
    std::string name; // below the data directory, else the path
    LedgerState state = LedgerState::recoverable;
    std::string why;               // of a state that is not recoverable, and notes to one that is
    std::string newest_set;        // that has it; empty: none
    std::string dbiid;             // of that copy; empty: not logged, or not known
    std::vector<Window> windows;   // the oldest first
    std::vector<CoverageGap> gaps; // likewise
    // A differential backup found that nothing had changed up to then; 0: none did.
    std::int64_t unchanged_until = 0;
    std::vector<std::int64_t> copies; // when each was complete
    bool follows_logs = false;        // logs lead on from the newest one
    std::optional<LastProof> proof;

    bool is_current() const {
        return state != LedgerState::deleted && state != LedgerState::left_out;
    }
    std::optional<std::int64_t> recoverable_from() const;
    std::optional<std::int64_t> recoverable_until() const;
    // The newest moment whose state of the database the store has.
    std::optional<std::int64_t> as_of() const;
};

// A set, for a person.
struct SetSummary {
    std::string set;
    std::string level;
    std::int64_t started = 0;
    std::int64_t complete_at = 0;
    std::string status;
    std::string logs;
    std::optional<Proof> proof;
};

// What is wrong, and what to do.
struct LedgerFinding {
    int code = 0; // that it gives the command; 0: it is only worth knowing
    std::string server;
    std::string text;
    std::string advice;
    std::string store = {}; // where the ledger is of several
};

struct ServerLedger {
    std::string store; // where the ledger is of several
    std::string name;
    std::string own_name; // the server's own; empty: not known
    std::string data_directory;
    std::vector<SetSummary> sets; // the oldest first
    struct Gap {
        std::string text;
        std::int64_t after = 0; // when the sets on both sides were complete
        std::int64_t before = 0;
        bool is_open = false; // no full set of the whole server came after it
    };
    std::vector<Gap> log_gaps;             // in the chain of all sets
    std::vector<DatabaseLedger> databases; // the worst first, then by name
    std::optional<std::int64_t> last_proof;

    std::size_t count(LedgerState state) const;
    std::size_t current() const;
    // Each current database that a set has can be had as of then, or of later; nothing without any.
    std::optional<std::int64_t> as_of() const;
};

struct Ledger {
    std::int64_t made = 0;
    std::vector<std::string> stores; // as --store has them
    std::vector<ServerLedger> servers;
    std::vector<LedgerFinding> findings; // the worst first

    // As commands return it.
    int exit_code() const;
    // One line: whether everything is fine, and what to do if not.
    std::string verdict() const;
};

struct LedgerRequest {
    std::string server;            // only this one's sets; empty: all
    const NotesIni* ini = nullptr; // of a server whose data directory is looked at
    std::optional<std::chrono::seconds> max_age;
    std::int64_t now = 0;
};

// Reads every manifest of the store once, and nothing of the server but, with a notes.ini, the
// names in its data directory. Throws ClientError: no_permission, no_such where a server is named
// that has no set.
Ledger make_ledger(Store& store, const LedgerRequest& request);

// One of several stores. REQUIRES: there is a ledger, and all were made for one request.
Ledger join_ledgers(std::vector<Ledger> ledgers);
// That of a store which could not be read, for this reason.
Ledger ledger_of_failure(const std::string& store, const ClientError& failure,
                         const LedgerRequest& request);

} // namespace qrtln
