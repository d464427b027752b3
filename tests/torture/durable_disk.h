// What a folder still holds after a power cut: a file system promises only what was flushed. The
// content of a file counts from its own flush on, a name in a folder (made, renamed or removed)
// from the flush of that folder on.
#pragma once

#include "client/file_io.h"
#include "tests/torture/traced_run.h"

#include <compare>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <sys/types.h>

namespace qrtln::torture {

// What a power cut may do with what was not flushed: whatever a file system happened to write.
enum class PowerCut {
    nothing_kept, // all of it is lost
    names_kept,   // the names are there, the content is not
    at_random     // each name and each content by itself is there, or not, or the content in part
};

class DurableDisk final : public CallObserver {
  public:
    // All that is below the folder now counts as flushed.
    explicit DurableDisk(const std::string& folder);

    void flushed(const std::string& descriptor) override;

    // Leaves in the folder what a power cut now would, and ends the use of this object.
    // REQUIRES: nobody uses the folder.
    void cut(PowerCut kind, std::mt19937_64& random);

  private:
    struct Key {
        dev_t device = 0;
        ino_t inode = 0;
        auto operator<=>(const Key&) const = default;
    };
    using Names = std::map<std::string, Key>;
    struct Node {
        FileDescriptor held; // so that no other file gets its number
        bool folder = false;
        std::string content; // flushed
        Names names;         // flushed
        std::string path() const { return "/proc/self/fd/" + std::to_string(held.get()); }
    };
    Key find(const std::string& path); // or adds, with nothing flushed
    Names names_now(const Node& folder);
    void flush_all(const std::string& path);
    // Writes to a new place what a power cut leaves of a file or folder.
    void leave(const Key& key, const std::string& place, PowerCut kind, std::mt19937_64& random);

    std::string m_folder;
    std::map<Key, Node> m_nodes;
};

} // namespace qrtln::torture
