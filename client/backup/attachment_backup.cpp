#include "client/backup/attachment_backup.h"

#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/domino/database_names.h"

#include <chrono>
#include <thread>
#include <utility>

namespace qrtln {

bool AttachmentBackup::takes(const ManifestItem& item) const {
    return saves_attachment_objects(m_run.request.level, !m_run.is_whole_system()) &&
           item.kind != ItemKind::directory && is_attachment_object(item.path);
}

void AttachmentBackup::store_all() {
    if (!saves_attachment_objects(m_run.request.level, !m_run.is_whole_system()) ||
        m_run.holds_nothing())
        return;
    AttachmentObjects objects(m_run.context.store, m_run.ini,
                              {.level = m_run.request.level,
                               .base = m_run.request.base,
                               .named = !m_run.is_whole_system(),
                               .comes_first = !m_run.request.reason.empty(),
                               .folder_may_be_empty = m_run.request.attachments_may_be_gone,
                               .reread = m_run.request.reread,
                               .listed = std::move(m_listed)});
    ObjectPlan plan = objects.plan();
    for (std::vector<ManifestItem>* items : {&plan.folders, &plan.failed, &plan.refer})
        for (ManifestItem& item : *items)
            if (m_run.set.meet(item.path) || item.kind != ItemKind::directory)
                m_run.set.add(std::move(item));
    for (const std::string& path : plan.read)
        store(objects, path);
}

// One that is being written is waited for a moment.
void AttachmentBackup::store(const AttachmentObjects& objects, const std::string& path) {
    constexpr int attempts = 10;
    constexpr std::chrono::milliseconds pause(100);
    ManifestItem item;
    bool again = true;
    for (int attempt = 0; again && attempt < attempts; ++attempt) {
        if (attempt > 0)
            std::this_thread::sleep_for(pause);
        m_run.heed_interrupt();
        item = m_run.originals.look_at(path);
        item.kind = ItemKind::other;
        again = item.reason.empty() && m_reader.read(item, path);
    }
    throw_if_interrupted();
    m_run.set.meet(path);
    if (item.reason.empty() || exists(path))
        m_run.set.add_read(std::move(item));
    else
        m_run.set.add(objects.gone(path));
}

} // namespace qrtln
