// An item as it is on the server: what kind it is, and the metadata that a restore gives back.
#pragma once

#include "client/sets/manifest.h"

#include <map>
#include <string>
#include <sys/stat.h>

namespace qrtln {

// The kind that a path's name tells.
ItemKind item_kind_of(const std::string& path);

// Looks at originals; remembers the names of users and groups.
class OriginalReader {
  public:
    // An item of this kind with the metadata of `status`.
    ManifestItem describe(const std::string& path, ItemKind kind, const struct stat& status);

    // The item with the original's metadata; with a reason when it is nothing that can be stored.
    ManifestItem look_at(const std::string& path);

  private:
    std::string user_name(uid_t uid);
    std::string group_name(gid_t gid);

    std::map<uid_t, std::string> m_users;
    std::map<gid_t, std::string> m_groups;
};

} // namespace qrtln
