// One item of a restore, with what becomes of it.
#pragma once

#include "client/sets/manifest.h"

#include <optional>
#include <string>
#include <sys/stat.h>

namespace qrtln {

enum class RestoreAction {
    activate,      // placed in the temporary folder, checked, then put in place by the server
    place,         // placed in the temporary folder, where it stays
    write,         // written to its target
    create_folder, // a folder without content
    leave_out,     // not restored, for a reason that is no failure
    refuse,        // cannot be restored: counts as failed
};

struct PlannedItem {
    std::string set;
    ManifestItem item;
    RestoreAction action = RestoreAction::refuse;
    std::string reason;    // of leave_out and refuse
    std::string announced; // the full path that the module hears
    std::string root;      // an existing folder, or --to, that the target must lie below
    std::string target;    // where the restored content lies in the end; empty for `place`
    std::optional<struct stat> existing; // what the target is now
    std::string used_by;                 // the processes that have the target open, if known
    bool replaces = false;               // the existing file goes
    bool copy_waits = false;             // of an earlier run, of this content
    bool keeps_replaced = false;         // the existing file stays beside it

    // Whether something is done for it.
    bool does_work() const {
        return action != RestoreAction::leave_out && action != RestoreAction::refuse;
    }
    void leave_out(const std::string& why) {
        action = RestoreAction::leave_out;
        reason = why;
    }
    void refuse(const std::string& why) {
        action = RestoreAction::refuse;
        reason = why;
    }
};

} // namespace qrtln
