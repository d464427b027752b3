// What a restore came to.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace qrtln {

struct FailedRestore {
    std::string path;
    std::string reason;
};

// [{"path", "reason"}], as commands print it.
nlohmann::json failures_json(const std::vector<FailedRestore>& list);

struct WaitingCopy {
    std::string path;       // of the original
    std::string copy;       // the restored, checked file
    std::string reason;     // why it was not put in place; empty: nobody asked for that
    bool untouched = false; // the live database is as it was; else it may be gone
    bool in_use = false;    // and somebody uses it
    std::string object;     // its content
};

struct KeptReplaced {
    std::string path; // what was replaced
    std::string kept; // as it was right before
};

struct RestoreResult {
    std::vector<std::string> restored;  // targets that hold what was to be restored
    std::vector<FailedRestore> failed;  // with those that the plan refused
    std::vector<FailedRestore> damaged; // the store's content is not what it should be
    std::vector<WaitingCopy> waiting;
    std::vector<KeptReplaced> kept_replaced;
    std::vector<std::string> warnings;
    std::string kept_folder; // where copies wait; empty: nothing is left
    bool noted = false;      // there, so that the next run uses those that were not activated
    std::uint64_t bytes = 0; // written
};

} // namespace qrtln
