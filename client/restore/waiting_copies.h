// Restored copies that could not be activated: what waits below the folder for temporary files is
// found by a later run, checked and used, so that each database has one at most.
#pragma once

#include "client/sets/manifest.h"

#include <functional>
#include <string>
#include <vector>

namespace qrtln {

struct NotedCopy {
    std::string path;   // of the original
    std::string copy;   // below the folder, relative
    std::string object; // the content that was put there
};

// Writes down in the folder of this run, which is about to be kept, what waits in it. Returns 0 or
// the errno; later runs do not find the copies then.
int note_waiting_copies(const std::string& folder, const std::string& data_directory,
                        const std::vector<NotedCopy>& copies);

class WaitingCopies {
  public:
    // Those of one server below `tmp_dir`, in kept folders that this user, or the server's,
    // alone can write to.
    // Others, and what is damaged, are passed over.
    WaitingCopies(const std::string& tmp_dir, const std::string& data_directory);

    // Whether a copy of the item's content seems to wait: its name and size are looked at.
    bool has(const ManifestItem& item) const;
    // Moves a copy of the item's content into an open folder under this name. It is read and must
    // be whole, of a user as above, and have no other name. Returns its former path; empty when
    // there is none. `between` is called now and then and ends it by throwing.
    std::string take(const ManifestItem& item, int folder, const std::string& name,
                     const std::function<void()>& between);
    // Removes what still waits for the database, and folders in which nothing waits any more.
    // Returns warnings: a copy that has been changed since is left alone.
    std::vector<std::string> drop(const std::string& path, const std::function<void()>& between);

  private:
    struct Kept {
        std::string folder;
        std::vector<NotedCopy> copies;
    };

    std::string m_data_directory;
    std::vector<Kept> m_kept;
};

} // namespace qrtln
