// A restored file: it comes into being beside its place and takes it in one step.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/sets/manifest.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace qrtln {

// Gives owner, permission bits and modification time of the item back, as far as this user may set
// them; bits that lend the owner's rights (setuid, setgid) never. Returns the first failure that
// root would not expect, or an empty text.
std::string apply_metadata(int fd, const ManifestItem& item);

// Removes the temporary files in an open folder that runs of this user left which were killed
// before they gave them their names.
void remove_parts_of_killed_runs(int folder);

// A file that comes into being under a temporary name and takes its own in one step. Destroyed
// before that it leaves nothing.
class SafeFile {
  public:
    // In the folder, which must outlive nothing: a descriptor of its own is kept.
    SafeFile(FileDescriptor folder, std::string name);
    ~SafeFile();
    SafeFile(const SafeFile&) = delete;
    SafeFile& operator=(const SafeFile&) = delete;

    // Each returns an empty text or what failed.
    std::string create();
    // A symbolic link instead of a file, which takes no bytes. It is never followed.
    std::string create_link(const std::string& target);
    std::string write(Bytes bytes);
    // The file that was created, for its owner to be set.
    int descriptor() const { return m_file.get(); }
    // Flushes, gives the metadata back when there is an item, and takes the name. What has it
    // already is replaced only when it is a regular file, or both are links, and `replace`; where
    // there is an item its extended attributes and access list are given to the new one.
    std::string commit(const ManifestItem* metadata, bool replace);
    // What the file that was replaced had and the new one has not.
    const std::vector<std::string>& warnings() const { return m_warnings; }

  private:
    std::string create_named(const std::function<bool(const std::string& name)>& make);
    std::string settle_link(const ManifestItem* metadata);
    std::string settle_file(const ManifestItem* metadata, bool exists, nlink_t names);
    void take_attributes(const ManifestItem& metadata);

    FileDescriptor m_folder;
    std::string m_name;
    std::string m_temporary; // empty once it is gone
    FileDescriptor m_file;
    bool m_link = false;
    std::vector<std::string> m_warnings;
};

} // namespace qrtln
