// How `qrtln forget`, and `qrtln backup --forget`, choose sets and let them go.
#pragma once

#include "client/sets/retention.h"
#include "client/store/reclaim.h"
#include "client/store/store.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

struct ForgetRequest {
    std::vector<std::string> sets; // by name; without a policy
    RetentionPolicy policy;
    bool even_last = false; // also the newest set that has a database
    std::string server;     // a policy concerns only its sets; empty: those of every server
    bool dry_run = false;
};

// --keep-last and its like, and --even-last.
void add_policy_options(CLI::App& command, ForgetRequest& request);
// Reads these from one text. Throws CLI::ParseError.
ForgetRequest parse_policy(const std::string& options);

struct Forgetting {
    bool dry_run = false;
    std::vector<std::string> forgotten;
    std::vector<std::pair<std::string, std::string>> kept; // with the reason
    Reclaimed reclaimed;
};

// Chooses sets, lets them go and takes their room back, or says what would be. A crash at any
// moment leaves every set that stays whole; the next call finishes the rest. Throws ClientError,
// and has forgotten nothing then, or all that was to be forgotten without all of the room.
// REQUIRES: the store is locked for writing.
Forgetting forget_sets(Store& store, const ForgetRequest& request);

// `with_kept`: also each set that stays, and why.
std::string forgetting_text(const Forgetting& done, bool with_kept);
nlohmann::json forgetting_json(const Forgetting& done);

} // namespace qrtln
