// The private folder that the module copies databases into, for one operation.
#pragma once

#include "client/base/file_descriptor.h"

#include <string>
#include <vector>

namespace qrtln {

// Throws ClientError(failed) for a folder that make_folder_for_copies() would refuse.
void require_usable_tmp_dir(const std::string& base, const std::string& data_directory);

// Makes a folder of mode 0700 below `base`, named `prefix` and six random characters, of which the
// module misreads none. It belongs to whom the module's process becomes. Returns its absolute path.
// Throws ClientError(failed); reasons are a base inside the data directory, where copies would be
// databases of the server, and one that the server's user cannot reach.
std::string make_folder_for_copies(const std::string& base, const std::string& data_directory,
                                   const std::string& prefix);

// Removes the private folders below `base` of runs for this server that were killed: this user's
// and the server's. What cannot be removed stays.
void remove_what_killed_runs_left(const std::string& base, const std::string& data_directory);

// The folders below `base` that TemporaryDirectory::keep() left, whosever they are.
std::vector<std::string> kept_folders(const std::string& base);

class TemporaryDirectory {
  public:
    // Makes a folder of mode 0700 below `base`, after removing what killed runs left there. Throws
    // as make_folder_for_copies does.
    TemporaryDirectory(const std::string& base, const std::string& data_directory);
    // Removes it with its content; symbolic links are never followed.
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    // Absolute, without a trailing "/".
    const std::string& path() const { return m_path; }

    // Opens a file in it that the module named, for reading: never through a link, whatever has
    // become of the paths. Nothing with errno set, which is ENOENT where the path is not below it.
    FileDescriptor open_file(const std::string& path) const;

    // Gives it a name that no later run removes, "qrtln-restored-...", and lets go of it. Returns
    // the new path; the old one when it could not be renamed.
    std::string keep();

    // Removes it now. Returns 0 or the errno of what could not be removed.
    int remove();

  private:
    std::string m_path;
    FileDescriptor m_lock; // shared with the child: held for as long as one of them lives
};

} // namespace qrtln
