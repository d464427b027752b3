// What the steps of planning a recovery share.
#pragma once

#include "client/domino/notes_ini.h"
#include "client/recovery/logs.h"
#include "client/recovery/plan.h"
#include "client/store/store.h"

namespace qrtln {

struct RecoveryPlanning {
    Store& store;
    const NotesIni& ini;
    const RecoveryRequest& request;
    const RecoverySituation& situation;
    StoredLogs stored_logs;

    bool is_proof() const { return request.kind == RecoveryKind::proof; }
    // What an earlier run of the same recovery noted of a database; nullptr for none.
    const PendingDatabase* pending(const std::string& path) const {
        return situation.journal == nullptr ? nullptr : situation.journal->entry_of(path);
    }
    // What the server says of the live database; nullptr when it was not asked.
    const LiveDatabase* live(const std::string& path) const {
        return situation.live == nullptr ? nullptr : situation.live->find(path);
    }
};

} // namespace qrtln
