// What a backup builds on: its level, and the base of a differential or incremental one, which is
// worth something only with what it builds on.
#pragma once

#include "client/backup/operation.h"
#include "client/base/error.h"
#include "client/commands/backup_options.h"
#include "client/domino/notes_ini.h"
#include "client/sets/catalogue.h"
#include "client/sets/distrusted_bases.h"
#include "client/sets/index_guard.h"
#include "client/store/store.h"

#include <optional>
#include <string>

namespace qrtln {

class BackupBase {
  public:
    // All of them outlive it. Throws ClientError when the store's list of distrusted bases cannot
    // be read.
    BackupBase(Store& store, const NotesIni& ini, IndexGuard& index, const BackupOptions& options);

    // Settles the level, the base and its start: the level of the options, or a full one where that
    // has nothing to build on and --auto-full allows it. Throws ClientError where a backup of that
    // level might miss something. An index that is damaged is put aside by a full backup of the
    // whole server. REQUIRES: the arguments of the request are set.
    void choose(BackupRequest& request);

    // What the sets since the base hold. REQUIRES: choose() settled on one.
    const SetsSince& since() const { return m_since; }

  private:
    void check_index(BackupRequest& request);
    void check_base(BackupRequest& request);
    std::optional<ClientError> problem_with(const std::optional<BaseSet>& base,
                                            const BackupRequest& request);
    std::string distrust_of(const BaseSet& base, const std::string& level);
    std::string broken_chain(const BaseSet& base, const BackupRequest& request) const;
    std::string missing_set(const std::string& base) const;
    std::string forgotten_since(const BaseSet& base) const;

    Store& m_store;
    const NotesIni& m_ini;
    IndexGuard& m_index;
    const BackupOptions& m_options;
    DistrustedBases m_distrusted;
    SetsSince m_since;
};

} // namespace qrtln
