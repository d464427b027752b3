// The copies of one database that a restore of documents works with, in a private folder that goes
// with the object.
#pragma once

#include "client/module/session.h"
#include "client/module/temporary_directory.h"
#include "client/sets/manifest.h"

#include <cstdint>
#include <optional>
#include <string>

namespace qrtln {

class DocumentCopies {
  public:
    // Both outlive it.
    DocumentCopies(const OperationContext& context, const ManifestItem& item)
        : m_context(context), m_item(item) {}

    // Makes the folder, with room for so many bytes. Throws ClientError(failed).
    void make(std::uint64_t room);
    // Takes the set's copy out of the store, whole or not at all. Throws
    // ClientError(damage_found) when the store has no whole one.
    void extract();

    // Where the module works.
    std::string work_folder() const { return folder(module_folder); }
    // The set's copy.
    std::string set_copy() const { return file(set_folder); }
    // The consistent copy of the live database.
    std::string live_copy() const { return file(live_folder); }
    // What stands in for the live database.
    std::string original() const { return file(original_folder); }
    // Makes the original anew, as a copy of one of the others.
    void renew_original(const std::string& from);
    // The original, from which the module deleted a document, takes the place of the set's copy.
    void keep_original_as_set_copy();

    // Puts the set's copy where the module wants it; `keep` leaves it in its own place, too.
    void place_set_copy(const std::string& place, bool keep);
    // Takes it back from there, or removes it there.
    void take_set_copy_back(const std::string& place, bool keep);

  private:
    // Below the private folder.
    static constexpr const char* module_folder = "work";
    static constexpr const char* set_folder = "set";
    static constexpr const char* live_folder = "live";
    static constexpr const char* original_folder = "original";
    std::string folder(const char* name) const { return m_temporary->path() + "/" + name; }
    std::string file(const char* name) const;

    const OperationContext& m_context;
    const ManifestItem& m_item;
    std::optional<TemporaryDirectory> m_temporary;
};

// Throws ClientError(failed) "cannot DOING PATH: ERROR".
[[noreturn]] void fail_file(const std::string& doing, const std::string& path, int error);

} // namespace qrtln
