// The folder of a store that holds a file for each set, its manifest, and the notes beside it.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/store/mirror.h"
#include "client/store/state_folder.h"
#include "client/store/store.h"
#include "client/store/store_place.h"

#include <optional>
#include <string>
#include <vector>

namespace qrtln {

// A manifest of a million items stays below this.
inline constexpr std::size_t maximal_manifest = std::size_t{1} << 30;

class SetFolder {
  public:
    // `place` outlives it.
    explicit SetFolder(const StorePlace& place) : m_place(place) {}

    // Takes the open folder sets/, and the one of the store, whose owner new files get.
    void open(FileDescriptor folder, int store);
    bool is_open() const { return static_cast<bool>(m_folder); }
    int descriptor() const { return m_folder.get(); }

    // As the functions of the Store say. REQUIRES for these and everything below: it is open.
    std::vector<std::string> names(std::vector<std::string>* foreign) const;
    bool has(const std::string& set) const;
    std::vector<std::string> noted() const;
    std::optional<std::string> read_manifest(const std::string& set, std::string& problem) const;
    // Likewise; `may_replace`: one that is there.
    void write_manifest(const std::string& set, const std::string& bytes, bool may_replace) const;
    // Likewise; with a folder for state, that comes first, and alone is written to.
    std::optional<std::string> read_note(const std::string& set, SetNote note,
                                         const std::optional<StateFolder>& state,
                                         std::string& problem) const;
    std::string write_note(const std::string& set, SetNote note, const std::string& bytes,
                           const std::optional<StateFolder>& state) const;
    // Removes the manifest and the notes of a set, as far as they are there, flushed. Throws
    // ClientError.
    void remove(const std::string& set) const;
    // What is in it, and no longer in it, is so after a power cut. Throws ClientError.
    void flush() const;

  private:
    std::optional<std::string> read_document(const std::string& name, Mirror::Cache cache) const;
    void write_document(const std::string& name, const std::string& what, const std::string& bytes,
                        bool may_replace) const;

    const StorePlace& m_place;
    FileDescriptor m_folder;
    int m_store = -1;
};

} // namespace qrtln
