#include "client/backup/own_notes_ini.h"

#include "client/domino/original.h"

#include <sys/stat.h>

namespace qrtln {

void store_own_notes_ini(BackupRun& run, ContentReader& reader) {
    struct stat in_data {};
    struct stat in_use {};
    // One file under two names, by whatever kind of link, is stored once.
    bool same = ::stat(run.data_notes_ini().c_str(), &in_data) == 0 &&
                ::stat(run.ini.file.c_str(), &in_use) == 0 && in_data.st_dev == in_use.st_dev &&
                in_data.st_ino == in_use.st_ino;
    if (same || !run.set.meet(run.ini.file))
        return;
    ManifestItem item = run.originals.look_at(run.ini.file);
    if (item.reason.empty())
        (void)reader.read(item, run.ini.file);
    if (item.reason.empty())
        item.status = ItemStatus::stored;
    run.set.add(std::move(item));
}

void store_changed_notes_ini(BackupRun& run, ContentReader& reader) {
    struct stat status {};
    if (::stat(run.ini.file.c_str(), &status) != 0 ||
        status.st_mtim.tv_sec >= run.request.base_started)
        store_own_notes_ini(run, reader);
}

} // namespace qrtln
