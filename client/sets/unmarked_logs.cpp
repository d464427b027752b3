#include "client/sets/unmarked_logs.h"

#include "client/base/text.h"
#include "client/sets/catalogue.h"
#include "client/sets/log_chain.h"
#include "client/sets/server_scope.h"

#include <fmt/format.h>
#include <string>
#include <vector>

namespace qrtln {

std::string last_close_problem(Store& store, const ServerScope& scope) {
    std::vector<std::string> names = store.set_names();
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        CatalogueEntry entry = load_set(store, *name, scope);
        if (!entry.manifest || !entry.manifest->complete || stored_logs(*entry.manifest).empty())
            continue;
        if (entry.manifest->close_error.empty())
            return {};
        return fmt::format("the server did not close the backup of the set {}: {}; it keeps "
                           "transaction logs that are stored, until a later backup is closed well",
                           *name, for_terminal(entry.manifest->close_error));
    }
    return {};
}

} // namespace qrtln
