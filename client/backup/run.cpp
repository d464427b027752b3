#include "client/backup/run.h"

#include "client/base/interrupt.h"
#include "client/domino/database_names.h"
#include "client/module/host.h"

#include <algorithm>
#include <utility>

namespace qrtln {

BackupRun::BackupRun(const BackupContext& given, BackupRequest asked)
    : context(given), request(std::move(asked)), ini(given.ini),
      rules(request.rules, ini.data_directory),
      set(context.store, manifest, rules, ini.data_directory, context.verbose),
      owed_ahead(context.owed, ini.data_directory,
                 selects_changes() ? std::vector<std::string>() : request.scan.databases),
      told(request.base_started) {}

void BackupRun::heed_interrupt() {
    session->host().forward_interrupt();
    throw_if_interrupted();
}

bool BackupRun::holds_nothing() const {
    const auto& all = manifest.items;
    return !request.reason.empty() &&
           std::none_of(all.begin(), all.end(), [](const ManifestItem& item) {
               return item.status == ItemStatus::failed ||
                      (item.status == ItemStatus::stored && is_database_name(item.path));
           });
}

} // namespace qrtln
