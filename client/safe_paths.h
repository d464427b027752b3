// Writes below one folder and nowhere else, whatever the names say and whatever links lie in the
// way: what is restored comes from a list of names that somebody may have tampered with.
#pragma once

#include "client/file_io.h"
#include "client/module_host.h"
#include "client/store/manifest.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace qrtln {

// What is wrong with the full path of an item by its text alone: not absolute, "..", a NUL, longer
// than the module takes, or than `limit` bytes with a NUL behind them. Empty when nothing is.
std::string path_problem(const std::string& path, std::size_t limit = module_path_size);

// Gives owner, permission bits and modification time of the item back, as far as this user may set
// them; bits that lend the owner's rights (setuid, setgid) never. Returns the first failure that
// root would not expect, or an empty text.
std::string apply_metadata(int fd, const ManifestItem& item);

// Called with the descriptor and the relative name of each folder that was created.
using FolderCreated = std::function<void(int fd, const std::string& relative)>;

// A folder that nothing below it may lead out of. Names given to it are relative, with single
// slashes. Problems are returned as texts for a person; empty means success.
class SafeFolder {
  public:
    // Opens an existing folder, following links to it. Throws ClientError(failed).
    // Without `kernel_resolves` each component is opened by itself and no link is followed at all,
    // which is what happens where the kernel has no openat2.
    explicit SafeFolder(const std::string& directory, bool kernel_resolves = true);

    const std::string& path() const { return m_path; }

    // Opens the folder `relative` ("" is this one). Missing ones are created with `created`, else
    // they are a problem: errno is then ENOENT.
    FileDescriptor open_folder(const std::string& relative, std::string& problem,
                               const FolderCreated& created = {}) const;

    // Looks at what `relative` names now, never through a link in its last component. Nothing with
    // an empty problem when it or a folder above it is missing.
    std::optional<struct stat> look_at(const std::string& relative, std::string& problem) const;

    // Opens an existing regular file for reading, for its metadata.
    FileDescriptor open_file(const std::string& relative, std::string& problem) const;

  private:
    FileDescriptor open_below(const std::string& relative, int flags) const;

    std::string m_path;
    FileDescriptor m_folder;
    bool m_kernel_resolves;
};

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
