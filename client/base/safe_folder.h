// A folder that nothing below it may lead out of, whatever the names say and whatever links lie in
// the way.
#pragma once

#include "client/base/file_descriptor.h"

#include <functional>
#include <optional>
#include <string>
#include <sys/stat.h>

namespace qrtln {

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

} // namespace qrtln
