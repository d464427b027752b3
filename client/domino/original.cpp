#include "client/domino/original.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/domino/database_names.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <strings.h>
#include <sys/stat.h>

namespace qrtln {

ItemKind item_kind_of(const std::string& path) {
    std::string name = path.substr(path.rfind('/') + 1);
    if (is_database_name(name))
        return ItemKind::database;
    if (name.size() > 4 && ::strcasecmp(name.c_str() + name.size() - 4, ".txn") == 0)
        return ItemKind::log;
    return name == "nlogctrl.lfh" ? ItemKind::log_control : ItemKind::file;
}

ManifestItem OriginalReader::look_at(const std::string& path) {
    ManifestItem item;
    item.path = path;
    item.kind = item_kind_of(path);
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        item.reason = errno == ENOENT ? "it is gone: it was there when the module listed it"
                                      : "cannot look at it: " + system_error_text(errno);
        return item;
    }
    item = describe(path, item.kind, status);
    if (S_ISDIR(status.st_mode))
        item.kind = ItemKind::directory;
    else if (!S_ISREG(status.st_mode))
        item.reason = fmt::format("it is {}, no file", file_type_name(status.st_mode));
    return item;
}

ManifestItem OriginalReader::describe(const std::string& path, ItemKind kind,
                                      const struct stat& status) {
    ManifestItem item;
    item.path = path;
    item.kind = kind;
    item.has_metadata = true;
    item.mode = status.st_mode & 07777;
    item.uid = status.st_uid;
    item.gid = status.st_gid;
    item.owner = user_name(status.st_uid);
    item.group = group_name(status.st_gid);
    item.mtime_ns = modification_time_ns(status);
    return item;
}

std::string OriginalReader::user_name(uid_t uid) {
    auto [entry, added] = m_users.try_emplace(uid);
    if (added)
        if (const passwd* user = ::getpwuid(uid))
            entry->second = user->pw_name;
    return entry->second;
}

std::string OriginalReader::group_name(gid_t gid) {
    auto [entry, added] = m_groups.try_emplace(gid);
    if (added)
        if (const group* found = ::getgrgid(gid))
            entry->second = found->gr_name;
    return entry->second;
}

} // namespace qrtln
