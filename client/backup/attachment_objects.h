// Attachment objects: files NAME.nlo that hold the attachments of documents in any number of
// databases, apart from them, and are never changed. A database that refers to one that is gone has
// lost that attachment.
//
// Databases are copied one after another, and objects come into being meanwhile: those that are
// there after the last database are the ones that the copies may refer to. One that is gone by then
// may be referred to by a database that was copied before, so that it counts as missing, unless a
// set has it.
#pragma once

#include "client/domino/notes_ini.h"
#include "client/sets/manifest.h"
#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

namespace qrtln {

struct ObjectSearch {
    std::string level = {};   // of the backup
    std::string base = {};    // of diff and incr: the set that it builds on; else empty
    bool named = false;       // of some databases
    bool comes_first = false; // a set that the backup which was asked for follows
    bool folder_may_be_empty = false;
    bool reread = false;               // also those that a set has
    std::set<std::string> listed = {}; // that were there when the backup began
};

// What a backup does about the objects.
struct ObjectPlan {
    std::vector<std::string> read;   // full paths
    std::vector<ManifestItem> refer; // whose content a set has; they are stored
    std::vector<ManifestItem> folders;
    std::vector<ManifestItem> failed; // with their reasons
};

// Whether a backup saves them: all but a differential one of named databases.
bool saves_attachment_objects(const std::string& level, bool named);

// Looks for them below the folder of notes.ini, and below the data directory. An object is not read
// where a set of this server since its newest complete full one has the same path with this size
// and time, and an incremental set does not have what those have, a differential one not what its
// base has. Throws when interrupted.
class AttachmentObjects {
  public:
    AttachmentObjects(Store& store, const NotesIni& ini, ObjectSearch search);

    ObjectPlan plan();

    // What stands for an object that was there and is gone: what a set has of it, or a failed item.
    ManifestItem gone(const std::string& path) const;

  private:
    struct Held {
        ManifestItem item;
        bool in_base = false;
    };

    void load_sets();
    bool is_held(const ManifestItem& now, std::uint64_t size, const Held*& held) const;
    void require_folder(ObjectPlan& plan, const std::set<std::string>& found) const;

    Store& m_store;
    const NotesIni& m_ini;
    const ObjectSearch m_search;
    std::map<std::string, Held> m_held; // by path, from the newest set that has it
    std::string m_newest_full;
};

// The objects that databases of a restore may need: those of the sets from the ones on which theirs
// build.
struct NeededObjects {
    std::size_t held = 0;
    std::size_t missing = 0; // on the server
    std::string folder;      // that all missing ones lie below
};
NeededObjects needed_objects(Store& store, const ServerScope& scope,
                             const std::set<std::string>& sets);
// A line for a person, empty when none is missing; and {"held", "missing", "folder"}.
std::string needed_objects_text(const NeededObjects& needed);
nlohmann::json needed_objects_json(const NeededObjects& needed);

} // namespace qrtln
