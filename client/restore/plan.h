// What a restore will do, decided and checked before anything is written: a dry run prints it, the
// real run follows it.
#pragma once

#include "client/base/room.h"
#include "client/domino/notes_ini.h"
#include "client/restore/selection.h"
#include "client/sets/manifest.h"

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace qrtln {

enum class RestoreAction {
    activate,      // placed in the temporary folder, checked, then put in place by the server
    place,         // placed in the temporary folder, where it stays
    write,         // written to its target
    create_folder, // a folder without content
    leave_out,     // not restored, for a reason that is no failure
    refuse,        // cannot be restored: counts as failed
};

const char* action_name(RestoreAction action);

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
};

struct RestoreRequest {
    SelectionRequest selection;
    std::string to; // empty: the original place
    bool plain = false;
    bool activate = false;
    bool keep_replaced = false; // with activate
    // For a recovery: databases are placed, to be rolled forward, files that are there stay, and
    // transaction logs are left out: they are planned apart.
    bool recovery = false;
    std::string tmp_dir; // below it the private folder is made
};

struct RestorePlan {
    std::string data_directory; // of this server
    std::string to;             // absolute; empty: the original place
    bool plain = false;
    bool activate = false;
    bool keep_replaced = false; // what is replaced stays beside it
    bool users_known = false;   // every process could be looked at for open files
    std::vector<PlannedItem> items;
    std::vector<RoomNeeded> room;
    // Of a recovery:
    std::string pending_folder;  // where databases are placed; empty: a private folder
    bool databases_wait = false; // for the server to change them: they stay this user's until then
    bool extents_only = false;   // transaction logs come back, and nothing else
    std::map<std::string, ManifestItem> folders; // those selected, by path: for their metadata
    std::vector<std::string> warnings;
};

// Makes the plan; writes nothing. Throws ClientError for a request that cannot be carried out: a
// relocation folder that the module would take for the data directory or misread, names that
// collide in a plain restore, names that no set holds.
RestorePlan make_restore_plan(Store& store, const NotesIni& ini, const RestoreRequest& request);

// What lies at the item's target now, and who uses it: "1.5 MiB of TIME, is replaced, in use by
// 12".
std::string existing_text(const PlannedItem& planned);

std::string plan_text(const RestorePlan& plan);
nlohmann::json plan_json(const RestorePlan& plan);

} // namespace qrtln
