// What backup_crashes kills, in which ways, and by which rules what is left is judged.
#pragma once

#include "tests/torture/durable_disk.h"
#include "tests/torture/model.h"
#include "tests/torture/traced_run.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qrtln::torture {

// What the model does not hold its commands to.
namespace rule {
constexpr const char* index = "index";         // byte for byte the old or the new one
constexpr const char* extents = "extents";     // none marked that no set has whole
constexpr const char* next_run = "next run";   // succeeds without a hand
constexpr const char* leftovers = "leftovers"; // nothing of the killed run is left
constexpr const char* databases = "databases"; // each is recoverable to its last commit
} // namespace rule

struct Kind {
    const char* name;
    Victim victim;
    std::optional<PowerCut> cut = {};
    bool in_next_run = false; // or after it: it may rely on what the killed one did not flush
    bool disk_full = false;   // in place of a kill
};

inline constexpr Kind kinds[] = {
    {"client and module killed", Victim::everything},
    {"power cut, nothing kept", Victim::everything, PowerCut::nothing_kept},
    {"client killed", Victim::client},
    {"power cut, names kept", Victim::everything, PowerCut::names_kept},
    {"module killed", Victim::module_process},
    {"power cut at random", Victim::everything, PowerCut::at_random},
    {"killed, and power cut in or after the next run", Victim::everything, PowerCut::nothing_kept,
     true},
    {"disk full", Victim::everything, {}, false, true}};

struct Plant {
    const char* name;
    const char* faults; // of the altered process
    const char* rule;   // that it violates
    const Kind& kind;   // that shows it
    const char* state = "changed";
};

inline constexpr Plant plants[] = {
    {"marking", "late Z-full.json 1", rule::extents, kinds[0]},
    {"flush", "unflushed /disk/ 1", whole_store, kinds[1]},
    {"index", "in_place qrtln_DBIID.ini 1", rule::index, kinds[0]},
    {"rewritten", "unflushed /packs/ 1", whole_store, kinds[1], "aged"}};

// The state that a killed run begins with, what it does, and what one that is not killed makes of
// it.
struct Scenario {
    std::string kept;    // its name
    std::string command; // "full" and "incr" are backups
    std::size_t calls = 0;
    std::size_t moments = 0;
    std::vector<std::size_t> owing = {}; // calls before which databases are owed
    std::set<std::string> indexes = {};  // that such a run ever leaves

    bool is_backup() const { return command == "full" || command == "incr"; }
    std::string name() const { return kept + "-" + command; }
};

} // namespace qrtln::torture
