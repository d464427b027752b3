// What a restore will do, decided and checked before anything is written: a dry run prints it, the
// real run follows it.
#pragma once

#include "client/base/room.h"
#include "client/domino/notes_ini.h"
#include "client/restore/planned_item.h"
#include "client/restore/selection.h"
#include "client/sets/manifest.h"

#include <map>
#include <string>
#include <vector>

namespace qrtln {

// What a restore is for decides where its databases go.
enum class RestoreKind {
    restore, // databases to a private folder, and from there into their places, if wanted; or all
             // below another folder
    copies,  // of a recovery: databases wait for the server to change them, as its user's, in the
             // pending folder or below another folder. Files that are there stay
    logs,    // of a recovery: transaction logs come back, and nothing else
    activation, // of a recovery: databases into their places, by way of the pending folder
};

struct RestoreRequest {
    RestoreKind kind = RestoreKind::restore; // or copies
    SelectionRequest selection;
    std::string to; // empty: the original place
    bool plain = false;
    bool activate = false;
    bool keep_replaced = false; // with activate
    std::string tmp_dir;        // below it the private folder is made
};

struct RestorePlan {
    RestoreKind kind = RestoreKind::restore;
    std::string data_directory; // of this server
    std::string to;             // absolute; empty: the original place
    bool plain = false;
    bool activate = false;
    bool keep_replaced = false; // what is replaced stays beside it
    bool users_known = false;   // every process could be looked at for open files
    std::vector<PlannedItem> items;
    std::vector<RoomNeeded> room;
    std::string
        pending_folder; // of a recovery: where databases are placed; empty: a private folder
    std::map<std::string, ManifestItem> folders; // those selected, by path: for their metadata
    std::vector<std::string> warnings;
};

// Makes the plan; writes nothing. Throws ClientError for a request that cannot be carried out: a
// relocation folder that the module would take for the data directory or misread, names that
// collide in a plain restore, names that no set holds.
RestorePlan make_restore_plan(Store& store, const NotesIni& ini, const RestoreRequest& request);

} // namespace qrtln
