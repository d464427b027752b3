#include "client/backup/item_backup.h"

#include "client/backup/own_notes_ini.h"
#include "client/backup/preparation.h"
#include "client/base/paths.h"
#include "client/domino/database_link.h"
#include "client/domino/original.h"

#include <cerrno>
#include <ctime>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace qrtln {

void ItemBackup::store(const std::string& path) {
    // Folders come again for every kind of file in them. A log comes again when it filled up after
    // it was handed out as the active one: the server will remove it, and only the second copy is
    // whole.
    bool again = !m_run.set.meet(path);
    if (again && m_run.told.logs.contains(path))
        m_run.set.drop(path);
    else if (again) {
        leave_to_others();
        return;
    }
    ManifestItem item = m_run.originals.look_at(path);
    if (auto log = m_run.told.logs.extract(path)) {
        item.log = log.mapped();
        item.kind = ItemKind::log;
    }
    const std::vector<std::string> warnings = m_passed_over.take_warnings();
    const bool data_notes_ini = path == m_run.data_notes_ini();
    struct stat original {};
    if (data_notes_ini && path != m_run.ini.file && ::stat(path.c_str(), &original) != 0 &&
        errno == ENOENT) {
        // The module names this path always; the file in use is elsewhere.
        leave_to_others();
        store_own_notes_ini(m_run, m_reader);
        return;
    }
    m_passed_over.note_yield(item);
    if (m_attachments.takes(item)) {
        m_attachments.note(path);
        leave_to_others();
    } else if (std::optional<std::string> target = database_link_target(path)) {
        leave_to_others();
        m_links.store(std::move(item), *target);
    } else {
        store_content(std::move(item), warnings);
        if (data_notes_ini)
            store_own_notes_ini(m_run, m_reader);
    }
}

// The module is told that the item is none of its own.
void ItemBackup::leave_to_others() {
    (void)m_run.items().finish(DB_ITEM_EXCLUDED);
}

void ItemBackup::store_content(ManifestItem item, const std::vector<std::string>& warnings) {
    if (item.kind == ItemKind::database)
        m_run.progress->next_database();
    std::string copy;
    if (item.reason.empty() && item.kind != ItemKind::directory)
        copy = prepare_and_read(item);
    const bool stored = item.reason.empty();
    if (stored) {
        item.status = ItemStatus::stored;
        item.warnings.insert(item.warnings.begin(), warnings.begin(), warnings.end());
    }
    if (m_run.items().finish(stored ? DB_ITEM_SUCCESS : DB_ITEM_FAIL) != DB_NUM_I_OK && stored)
        item.warnings.push_back("stored, but the module could not clean up after it: " +
                                m_run.items().reason());
    // Some copies the module leaves behind: the next database needs their room.
    if (copy != item.path && is_below(copy, m_run.temporary->path()))
        ::unlink(copy.c_str());
    m_run.set.add(std::move(item));
}

// Returns the file that was read; empty: none.
std::string ItemBackup::prepare_and_read(ManifestItem& item) {
    std::string file = prepare_item(m_run, item);
    if (!item.reason.empty())
        return {};
    if (item.kind == ItemKind::database)
        item.copied = std::time(nullptr) + 1; // the server may have gone on until now
    (void)m_reader.read(item, file);
    if (item.reason.empty() && item.copied == 0)
        item.copied = std::time(nullptr) + 1;
    return file;
}

} // namespace qrtln
