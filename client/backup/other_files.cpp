#include "client/backup/other_files.h"

#include "client/backup/own_notes_ini.h"
#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/base/safe_folder.h"
#include "client/domino/database_names.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <unistd.h>
#include <utility>

namespace qrtln {

namespace {

void read_link(ManifestItem& link) {
    std::string target(PATH_MAX, '\0');
    ssize_t length = ::readlink(link.path.c_str(), target.data(), target.size());
    if (length <= 0)
        link.reason = errno == ENOENT ? "it is gone: it was there when its folder was listed"
                                      : "cannot read the link: " + system_error_text(errno);
    link.target = target.substr(0, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
}

} // namespace

void OtherFiles::store_all() {
    if (!m_run.is_whole_system()) {
        m_links.name_targets();
        return;
    }
    if (m_run.selects_changes() && m_run.request.other_files)
        m_held.read_sets(m_run.context.store, m_run.request.base, m_run.ini.sets,
                         m_run.request.level == "diff");
    auto known = [this](const auto& path, const auto& status) { return is_known(path, status); };
    auto found = [this](const FoundFile& file) {
        m_run.heed_interrupt();
        if (file.type == FoundFile::Type::file)
            m_links.name_behind_directory_link(file.path);
        if (m_run.request.other_files)
            store_found(file);
    };
    LeftOutFiles left_out = find_system_files(m_run.ini, m_run.rules, known, found);
    // notes.ini may lie elsewhere, and an incremental backup has no other look at it.
    struct stat status {};
    if (m_run.selects_changes() && m_run.request.other_files && m_run.request.level == "incr" &&
        ::stat(m_run.ini.file.c_str(), &status) == 0 &&
        !m_held.has(m_run.originals.describe(m_run.ini.file, ItemKind::file, status), status))
        store_own_notes_ini(m_run, m_reader);
    m_links.name_targets();
    left_out.excluded += m_links.excluded();
    m_run.manifest.other_files = m_run.request.other_files;
    if (m_run.request.other_files)
        m_run.manifest.left_out = left_out;
}

// A database is the module's, and so is a link to a file that it handed out before: it tells itself
// what did not change. Of a folder behind a link it knows no link.
bool OtherFiles::is_known(const std::string& path, const struct stat& status) {
    struct stat target {};
    bool link = S_ISLNK(status.st_mode) && ::stat(path.c_str(), &target) == 0;
    if (link && S_ISDIR(target.st_mode))
        return false;
    bool file = S_ISREG(link ? target.st_mode : status.st_mode);
    if (file && !link && is_database_name(path))
        m_links.take(path, status, m_held);
    return m_run.set.has(path) || (link && m_held.is_of_module(path)) ||
           (file && (is_database_name(path) || is_attachment_object(path)));
}

void OtherFiles::store_found(const FoundFile& found) {
    if (m_run.set.has(found.path)) {
        const ManifestItem* told = m_run.set.find(found.path);
        bool stored = told != nullptr && told->status == ItemStatus::stored;
        if (!stored || found.type == FoundFile::Type::folder)
            return;
        m_run.set.drop(found.path); // a folder that is none
    }
    if (found.type == FoundFile::Type::unreadable) {
        m_run.set.add_failed(found.path, ItemKind::other, found.problem);
        return;
    }
    ItemKind kind = found.type == FoundFile::Type::folder ? ItemKind::directory
                    : found.type == FoundFile::Type::link ? ItemKind::link
                                                          : ItemKind::other;
    ManifestItem item = m_run.originals.describe(found.path, kind, found.status);
    if (kind == ItemKind::link)
        read_link(item);
    if (item.reason.empty() && m_held.has(item, found.status))
        return;
    m_run.set.meet(found.path);
    if (kind == ItemKind::other)
        store_file(std::move(item), found.status);
    else if (kind == ItemKind::link)
        m_run.set.add_read(std::move(item));
    else {
        if (item.reason.empty())
            item.status = ItemStatus::stored;
        m_run.set.add(std::move(item));
    }
}

void OtherFiles::store_file(ManifestItem item, const struct stat& status) {
    constexpr int attempts = 3;
    const std::string relative = path_below(item.path, m_run.ini.data_directory);
    SafeFolder data(m_run.ini.data_directory);
    bool again = true;
    for (int attempt = 0; again && attempt < attempts && interrupt_signal() == 0; ++attempt) {
        std::string problem;
        struct stat now = status;
        FileDescriptor content = data.open_file(relative, problem);
        int error = errno;
        if (content && ::fstat(content.get(), &now) != 0)
            problem = system_error_text(errno);
        item = m_run.originals.describe(item.path, item.kind, now);
        again = false;
        if (!problem.empty())
            item.reason = !content && error == ENOENT
                              ? "it is gone: it was there when its folder was listed"
                              : problem;
        else
            again = m_reader.read(item, std::move(content));
    }
    throw_if_interrupted();
    m_run.set.add_read(std::move(item));
}

} // namespace qrtln
