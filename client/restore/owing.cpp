#include "client/restore/owing.h"

#include "client/base/error.h"
#include "client/sets/catalogue.h"

#include <fmt/format.h>

namespace qrtln {

std::string not_owed_text(const std::string& reason) {
    return fmt::format(
        "what is put in place cannot be written down for the next backup ({}): take "
        "a full backup afterwards (`qrtln backup --level full`), others may not save "
        "it",
        reason);
}

void RestoreDebts::add(const std::string& path, std::vector<std::string>& warnings) {
    if (m_owed == nullptr)
        return;
    try {
        m_owed->add(m_data_directory, path, true);
    } catch (const ClientError& failure) {
        m_owed = nullptr;
        warnings.push_back(not_owed_text(failure.what()));
    }
}

void RestoreDebts::add_all(std::vector<std::string>& warnings) {
    if (m_owed == nullptr)
        return;
    try {
        m_owed->add_restored(m_data_directory,
                             saved_databases(m_context.store, m_context.ini.sets));
    } catch (const ClientError& failure) {
        m_owed = nullptr;
        warnings.push_back(not_owed_text(failure.what()));
    }
}

} // namespace qrtln
