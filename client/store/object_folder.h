// The folder of a store that holds its objects, a file each, and what this run did there: what it
// added, which is taken back when it fails, and what is not flushed yet.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/store/store.h"
#include "client/store/store_place.h"
#include "client/store/stored_file.h"

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace qrtln {

// Decompresses an object into `sink`, and compares it with its hash, as Store::read_object does.
// Throws PackDamage for a file that cannot be read.
ObjectCheck read_object_file(const StoredFile& file, const std::string& hash,
                             const std::function<void(Bytes)>& sink);

class ObjectFolder {
  public:
    // `place` outlives it.
    explicit ObjectFolder(const StorePlace& place) : m_place(place) {}

    // Takes the open folder objects/, and the one of the store, whose owner new files get.
    void open(FileDescriptor folder, int store);
    bool is_open() const { return static_cast<bool>(m_folder); }

    // As the functions of the Store say. REQUIRES for these and everything below: it is open.
    ObjectCheck read(const std::string& hash, const std::function<void(Bytes)>& sink) const;
    bool has(const std::string& hash, std::uint64_t stored_size) const;
    std::vector<std::string> list(std::vector<std::string>* foreign) const;
    // What is known to be damaged has a note beside it, until a whole one takes its place. Returns
    // 0 or the errno.
    int note_damage(const std::string& hash, bool damaged) const;
    bool is_noted_damaged(const std::string& hash) const;

    // --- for the writer of an object
    const StorePlace& place() const { return m_place; }
    // Where the file of an object lies, "objects/AB/AB.zst".
    std::string path_of(const std::string& hash) const {
        return m_place.path_of(FileKind::object, hash);
    }
    int descriptor() const { return m_folder.get(); }
    int store() const { return m_store; }
    CompressionLevel compression() const { return m_compression; }
    // A name for a file that is being written: it is unlike that of any other of this run.
    std::string temporary_name();
    // The folder of an object is to be flushed, and objects/ itself. Also for one that was there:
    // the run that wrote it may have been killed before it did that.
    void expect_flush(const std::string& path);
    // A new object lies there, and is taken back with this run.
    void note_added(const std::string& path) { m_added.push_back(path); }

    // --- the run
    void compress_at(CompressionLevel level) { m_compression = level; }
    // Flushes every folder that an object went to. Throws ClientError.
    void flush();
    // Removes an object that this run added; any other stays.
    void discard(const std::string& hash) noexcept;
    // Removes all of them, as far as that goes.
    void discard_added() noexcept;
    // They stay from here on.
    void keep_added() noexcept { m_added.clear(); }

  private:
    bool remove_file(const std::string& path) const noexcept;

    const StorePlace& m_place;
    FileDescriptor m_folder;
    int m_store = -1;
    CompressionLevel m_compression = usual_compression;
    unsigned m_next_temporary = 0;
    std::vector<std::string> m_added;  // paths, as path_of() has them
    std::set<std::string> m_unflushed; // folders below objects/ that a rename changed
    bool m_itself_unflushed = false;   // objects/
};

} // namespace qrtln
