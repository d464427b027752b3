// Where a store is, and how what goes wrong in its files is told: shared by the parts of a store in
// a folder, which each keep some of them.
#pragma once

#include <string>
#include <vector>

namespace qrtln {

class Mirror;

class StorePlace {
  public:
    // `mirror` outlives it: of a store that lies elsewhere, of which the folder has a part.
    explicit StorePlace(const std::string& directory, Mirror* mirror = nullptr);

    const std::string& directory() const { return m_directory; } // absolute
    Mirror* mirror() const { return m_mirror; }
    std::string path(const std::string& name) const { return m_directory + "/" + name; }
    // The store in words, for messages.
    std::string description() const;

    // Throws ClientError: "cannot DOING in the store …", with the system's text of `error` and what
    // to do about it; no_permission where that is the error. `name`: what was to be written to,
    // below the folder of the store; empty: that folder.
    [[noreturn]] void fail(const std::string& doing, int error, const std::string& name = {}) const;

    // Whether something has this name in an open folder, without following it. Only ENOENT says
    // that it has not: throws ClientError for everything else.
    bool exists(int folder, const std::string& name) const;
    // Whether the store has "sets/NAME" and the like, wherever it lies; the folder is that of its
    // first part. Throws likewise.
    bool has(int folder, const std::string& path) const;
    // The names in a part of the store, which this is the open folder of, or in a folder of it.
    // Throws likewise.
    std::vector<std::string> list_part(int folder, const std::string& part,
                                       const std::string& below = ".") const;
    // The names in a folder of an open folder, "." for itself, sorted. One that cannot be read is
    // not one without files: throws ClientError.
    std::vector<std::string> list_folder(int folder, const std::string& name) const;

    // From here on vanished_store_hint() looks after this store; or no longer, as this process
    // removes it.
    void watch() const;
    void unwatch() const;
    // Throws ClientError(failed) where the store is gone: what is missing in it is not damaged.
    void require_there() const;

  private:
    std::string m_directory;
    Mirror* m_mirror;
};

// The file that makes a folder a store.
inline constexpr const char* format_file = "store.json";

// Writes, flushes and closes a new file of a folder. Returns 0 or the errno, and then leaves
// nothing. `owner` is the folder whose owner it belongs to when root writes it.
int write_flushed(int folder, const std::string& name, const std::string& bytes, int owner);

} // namespace qrtln
