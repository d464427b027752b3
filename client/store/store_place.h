// Where a store is, and how what goes wrong in its files is told: shared by the parts of a store in
// a folder, which each keep some of them.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qrtln {

class Mirror;
class Sealing;

// The folders of the files that contents lie in. Each has an id of 64 hexadecimal digits.
inline constexpr const char* object_folder = "objects";
inline constexpr const char* pack_folder = "packs";
inline constexpr const char* map_folder = "maps";
enum class FileKind { object, pack, map };

// "packs/STEM.pack" and the like, below the folder of the store. The stem is the id, but in an
// encrypted store.
std::string stored_path(FileKind kind, const std::string& stem);

class StorePlace {
  public:
    // `mirror` outlives it: of a store that lies elsewhere, of which the folder has a part.
    explicit StorePlace(const std::string& directory, Mirror* mirror = nullptr);

    const std::string& directory() const { return m_directory; } // absolute
    Mirror* mirror() const { return m_mirror; }
    std::string path(const std::string& name) const { return m_directory + "/" + name; }
    // Of an encrypted store, once its key is known; else nullptr.
    const Sealing* sealing() const { return m_sealing.get(); }
    void seal_with(std::shared_ptr<const Sealing> sealing) { m_sealing = std::move(sealing); }
    // Where the file with this id lies, below the folder; what says that it is damaged lies beside
    // it. And the id of a file there; nothing for one that has none.
    std::string path_of(FileKind kind, const std::string& id) const;
    std::string damage_note_of(FileKind kind, const std::string& id) const;
    std::optional<std::string> id_of(FileKind kind, const std::string& file_name) const;
    // Whether a file beside others is such a note.
    static bool is_damage_note(std::string_view file_name);
    // A document as it lies in the store, sealed where that is encrypted, and back: nothing with
    // `problem` set for one that is damaged. `name`: "sets/NAME.json" and the like.
    std::string stored_document(const std::string& bytes, const std::string& name) const;
    std::optional<std::string> read_document(const std::string& stored, const std::string& name,
                                             std::string& problem) const;
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
    std::string stem_of(FileKind kind, const std::string& id) const;

    std::string m_directory;
    Mirror* m_mirror;
    std::shared_ptr<const Sealing> m_sealing;
};

// "AB.pack" of "packs/AB.pack", "ab/AB.zst" of "objects/ab/AB.zst": below the open folder.
std::string name_in_folder(const std::string& path);

// The file that makes a folder a store.
inline constexpr const char* format_file = "store.json";

// Writes, flushes and closes a new file of a folder. Returns 0 or the errno, and then leaves
// nothing. `owner` is the folder whose owner it belongs to when root writes it.
int write_flushed(int folder, const std::string& name, const std::string& bytes, int owner);

} // namespace qrtln
