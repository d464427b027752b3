#include "client/sets/unmarked_logs.h"

#include "client/base/text.h"
#include "client/sets/catalogue.h"
#include "client/sets/log_chain.h"
#include "client/sets/server_scope.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace qrtln {

void UnmarkedLogs::read(const std::string& line) {
    constexpr std::string_view number = ", Log number ";
    constexpr std::string_view failed = "finishArchiveLog(): NSFDoneArchivingLog call failed: ";
    if (line.starts_with("Call NSFDoneArchivingLog: ")) {
        std::size_t at = line.find(number);
        m_asked = at == std::string::npos ? "" : line.substr(at + number.size());
        m_asked.erase(std::min(m_asked.find_first_not_of("0123456789"), m_asked.size()));
    } else if (line.starts_with(failed) && m_reason.empty()) {
        m_reason = line.substr(failed.size());
        m_first = m_asked;
    } else if (line == "DB_CloseOperation(): finishArchiveLog() failed") {
        ++m_count;
    }
}

std::string UnmarkedLogs::problem() const {
    if (m_count == 0 && m_reason.empty())
        return {};
    std::string text = m_count > 1 ? std::to_string(m_count) + " transaction logs are"
                                   : std::string("a transaction log is");
    text += " not marked as archived";
    if (!m_first.empty())
        text += (m_count > 1 ? ", the first is number " : ", number ") + m_first;
    return text + ": " + (m_reason.empty() ? "the module gave no reason" : m_reason);
}

std::string last_close_problem(Store& store, const ServerScope& scope) {
    std::vector<std::string> names = store.set_names();
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        CatalogueEntry entry = load_set(store, *name, scope);
        if (!entry.manifest || !entry.manifest->complete || stored_logs(*entry.manifest).empty())
            continue;
        if (entry.manifest->close_error.empty())
            return {};
        return "the server did not close the backup of the set " + *name + ": " +
               for_terminal(entry.manifest->close_error) +
               "; it keeps transaction logs that are stored, until a later backup is closed well";
    }
    return {};
}

} // namespace qrtln
