// What the steps of one restore share while it runs.
#pragma once

#include "client/module/neutral_path.h"
#include "client/module/session.h"
#include "client/module/temporary_directory.h"
#include "client/restore/created_folders.h"
#include "client/restore/plan.h"
#include "client/restore/result.h"

#include <optional>
#include <string>

namespace qrtln {

struct RestoreRun {
    RestoreRun(const OperationContext& with, const RestorePlan& along)
        : context(with), plan(along), to(along.to, along.data_directory) {}

    // Where databases are placed: absolute, without a trailing "/".
    const std::string& temporary_folder() const {
        return temporary ? temporary->path() : plan.pending_folder;
    }
    void warn(std::string warning) { result.warnings.push_back(std::move(warning)); }
    // Notes that an item failed, and prints it; `told` may have paths as the module hears them.
    void fail(const PlannedItem& planned, const std::string& told);
    // What was kept of the file that the item replaces becomes a part of the result.
    void note_kept(const PlannedItem& planned);
    // It was not replaced after all: what was kept of it is removed.
    void forget_kept(const PlannedItem& planned);

    const OperationContext& context;
    const RestorePlan& plan;
    NeutralPath to;
    std::optional<TemporaryDirectory> temporary; // none with the plan's pending folder
    CreatedFolders created;
    RestoreResult result;
    std::string kept; // what is kept of the file that the item under way replaces; empty: nothing
};

// The folder part of a relative path.
std::string relative_folder(const std::string& relative);

} // namespace qrtln
