// What the steps of one backup share.
#pragma once

#include "client/backup/log_session.h"
#include "client/backup/module_report.h"
#include "client/backup/operation.h"
#include "client/backup/owed_ahead.h"
#include "client/backup/path_rules.h"
#include "client/backup/set_contents.h"
#include "client/base/output.h"
#include "client/domino/original.h"
#include "client/module/session.h"
#include "client/module/temporary_directory.h"
#include "client/sets/latest_contents.h"
#include "client/sets/manifest.h"

#include <map>
#include <optional>
#include <string>

namespace qrtln {

struct BackupRun {
    // The context outlives it.
    BackupRun(const BackupContext& given, BackupRequest asked);
    BackupRun(const BackupRun&) = delete;
    BackupRun& operator=(const BackupRun&) = delete;

    bool is_whole_system() const { return request.arguments.empty(); }
    bool is_whole_full() const { return request.level == "full" && is_whole_system(); }
    // Whether the module chooses the items that changed, and passes over the others.
    bool selects_changes() const { return !request.base.empty(); }
    // The operation that hands items out now.
    ModuleSession& items() { return log_session ? log_session->session() : *session; }
    // Where the module looks for a notes.ini; the one in use may lie elsewhere.
    std::string data_notes_ini() const { return ini.data_directory + "/notes.ini"; }
    // Ends what takes long with an error when a signal came, of which the module hears first.
    void heed_interrupt();
    // Whether the set would tell of nothing but databases that are left out again, and comes before
    // the one that was asked for.
    bool holds_nothing() const;

    const BackupContext& context;
    BackupRequest request;
    const NotesIni& ini;
    const PathRules rules;
    Manifest manifest;
    SetContents set; // the manifest's items
    OwedAhead owed_ahead;
    ModuleReport told;
    OriginalReader originals;
    std::map<std::string, LatestContent> earlier; // the newest version of each file, by its path
    bool listing_failed = false; // the module ended before it had handed out everything
    // The session goes first: its child has the temporary folder in use.
    std::optional<TemporaryDirectory> temporary;
    std::optional<ModuleSession> session;
    std::optional<LogSession> log_session; // where the first does not get the logs
    std::optional<Progress> progress;
};

} // namespace qrtln
