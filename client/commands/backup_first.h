// What a backup saves before the one that was asked for, which may pass it over: the databases that
// earlier runs owe, that are in no set yet, or that the server's index cannot hold.
#pragma once

#include "client/backup/operation.h"
#include "client/commands/backup_folders.h"
#include "client/sets/catalogue.h"
#include "client/sets/manifest.h"

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qrtln {

class BackupFirst {
  public:
    // Both outlive it.
    BackupFirst(const BackupContext& context, const RemovedFolders& removed)
        : m_context(context), m_ini(context.ini), m_removed(removed) {}

    // Saves them in a set of their own; `request` is the backup that was asked for and gets those
    // that had to be left out, `since` what the sets since its base hold. A failure is told and
    // kept as the exit code: that backup is still worth making, after `settle_base_again`, as the
    // close may have lost the index. Throws ClientError when interrupted.
    void save(BackupRequest& request, const SetsSince& since,
              const std::function<void()>& settle_base_again);

    // The owed databases that are there. One that is gone is told and struck out, but not when its
    // folder is away, which is told and is a failure.
    std::set<std::string> owed_and_there();

    // Tells of databases that had to come first and cannot be named: a failure, unless the backup
    // that was asked for took them.
    void report_unnamed(const Manifest& asked, const BackupRequest& request);

    // Of their own, if there is one.
    const std::optional<Manifest>& set() const { return m_set; }
    int exit_code() const { return m_code; }

  private:
    void tell_away(const std::string& folder, const std::string& reason, std::size_t databases);
    std::set<std::string> choose(const BackupRequest& request, const SetsSince& since);
    std::vector<DatabaseArgument> arguments_of(const std::set<std::string>& paths);
    void raise(int code);

    const BackupContext& m_context;
    const NotesIni& m_ini;
    const RemovedFolders& m_removed;
    std::map<std::string, std::string> m_unnamed; // what cannot be saved by name, and why
    std::optional<Manifest> m_set;
    int m_code = 0;
};

} // namespace qrtln
