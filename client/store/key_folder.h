// The folder of an encrypted store that holds its keys, a file each.
#pragma once

#include "client/store/store_place.h"
#include "client/store/wrapped_key.h"

#include <optional>
#include <string>
#include <vector>

namespace qrtln {

inline constexpr const char* key_folder = "keys";

class KeyFolder {
  public:
    // `place` outlives it.
    explicit KeyFolder(const StorePlace& place) : m_place(place) {}
    // Takes the open folder of the store, which outlives it.
    void open(int store) { m_store = store; }

    // Whether there is any file in it.
    bool has_any() const;
    // All keys, the oldest first. What is no key, or damaged, goes to `problems`, a line each, if
    // given. Throws ClientError, as all below does.
    std::vector<WrappedKey> list(std::vector<std::string>* problems) const;
    // The key of the store, by the secrets that this run has. Throws ClientError(no_permission)
    // where none of them opens it.
    SecretKey unlock() const;
    // It is there after a power cut. Makes the folder where it is missing.
    void add(const WrappedKey& key) const;
    void remove(const std::string& id) const;
    // Removes those of a store that was never made whole.
    void remove_all() const noexcept;
    // Whether "keys/ID.json" and the like can be one of its files.
    static bool is_path_of_key(std::string_view path);

  private:
    std::vector<std::string> names() const;
    std::string path_of(const std::string& id) const;
    std::optional<std::string> read(const std::string& name) const;

    const StorePlace& m_place;
    int m_store = -1;
};

} // namespace qrtln
