// The private folder that the module copies databases into, for one operation.
#pragma once

#include "client/file_io.h"

#include <string>
#include <vector>

namespace qrtln {

// Throws ClientError(failed) for a folder that make_folder_for_copies() would refuse.
void require_usable_tmp_dir(const std::string& base, const std::string& data_directory);

// Makes a folder of mode 0700 below `base`, named `prefix` and six random characters, of which the
// module misreads none. Returns its absolute path. Throws ClientError(failed); one reason is a base
// inside the data directory, where copies would be databases of the server.
std::string make_folder_for_copies(const std::string& base, const std::string& data_directory,
                                   const std::string& prefix);

// Removes the private folders below `base` of runs of this user that were killed. What cannot be
// removed stays.
void remove_what_killed_runs_left(const std::string& base);

// The folders below `base` that TemporaryDirectory::keep() left, whosever they are.
std::vector<std::string> kept_folders(const std::string& base);

class TemporaryDirectory {
  public:
    // Makes a folder of mode 0700 below `base`, after removing what killed runs of this user left
    // there. Throws as make_folder_for_copies does.
    TemporaryDirectory(const std::string& base, const std::string& data_directory);
    // Removes it with its content; symbolic links are never followed.
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    // Absolute, without a trailing "/".
    const std::string& path() const { return m_path; }

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
