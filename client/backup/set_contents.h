// The items of a set as they come: which paths were met, and what became of each. What an item no
// longer refers to is taken out of the store again.
#pragma once

#include "client/backup/path_rules.h"
#include "client/sets/manifest.h"
#include "client/store/store.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

class SetContents {
  public:
    // All of them outlive it. `rules` say which databases may be missing.
    SetContents(Store& store, Manifest& manifest, const PathRules& rules,
                const std::string& data_directory, bool verbose);

    // Whether a path was met, as an item or as something that is none.
    bool has(const std::string& path) const { return m_met.contains(path); }
    // Returns false for one that was met before.
    bool meet(const std::string& path) { return m_met.insert(path).second; }
    bool forget_met(const std::string& path) { return m_met.erase(path) > 0; }

    // Adds an item, and says so where it failed. REQUIRES: its path was met.
    void add(ManifestItem item);
    // Adds one that somebody was told of before.
    void add_silently(ManifestItem item);
    // Meets a path and adds a failed item for it.
    void add_failed(const std::string& path, ItemKind kind, const std::string& reason);
    // Adds an item of which all is known: stored when it has no reason. `copied` says that its
    // content is as of now.
    void add_read(ManifestItem item);

    // The item of a path; nullptr: there is none.
    const ManifestItem* find(const std::string& path) const;
    // Takes an item out, with its content.
    void drop(const std::string& path);
    // A stored item must not count: its content is taken out. REQUIRES: it is one of the set's.
    void fail(ManifestItem& item, const std::string& reason);

    // An object was written for an item.
    void note_object(const StoredObject& object);
    // The contents in blocks have their places: the items tell them from here on.
    void place_contents(const FinishedContents& contents);
    // The bytes that this set brought to the store.
    std::uint64_t new_bytes() const;

  private:
    void drop_content(ManifestItem& item);
    void report(const ManifestItem& item) const;

    Store& m_store;
    Manifest& m_manifest;
    const PathRules& m_rules;
    const std::string& m_data_directory;
    bool m_verbose;
    std::set<std::string> m_met;
    std::map<std::string, std::uint64_t> m_objects; // of this run, with their stored sizes
    std::map<std::string, std::size_t> m_contents;  // likewise in blocks, with their numbers
    std::uint64_t m_content_bytes = 0;              // that those added to the store
};

} // namespace qrtln
