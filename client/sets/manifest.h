// The description of one set: what it holds, of which server, and how the run went.
#pragma once

#include "client/base/version.h"
#include "client/store/content_map.h"

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

inline constexpr int manifest_format = 1;

// What the module hands out, and what the client finds beside it: other files, and symbolic links.
enum class ItemKind { directory, database, log, log_control, file, other, link };
// One that is left out is a database that could not be saved, which somebody said may be missing.
enum class ItemStatus { stored, failed, left_out };

// A transaction log, as the module announced it.
struct LogIdentity {
    std::uint32_t number = 0;
    std::string archive_id; // eight hexadecimal digits: the words of the identity, folded into one
    bool active = false;    // the log that was still being written
    // The whole identity, 34 characters like those of a database's instance; empty in sets of
    // earlier releases.
    std::string whole_id = {};
};

// Whether both are of one log: by their whole identities, or by the folded ones where one has no
// other.
bool same_archive(const LogIdentity& one, const LogIdentity& other);

// A break in the chain of transaction logs.
struct LogGap {
    std::string after;       // the set before it
    std::string before;      // the set behind it; the same one for a gap within a set
    std::uint32_t first = 0; // the missing numbers; 0 and 0 with a reason
    std::uint32_t last = 0;
    std::string reason; // why the chain breaks where no numbers are missing
};

struct ManifestItem {
    std::string path; // the bytes of the full path
    ItemKind kind = ItemKind::file;
    ItemStatus status = ItemStatus::failed;
    std::string reason; // why it failed, also of one that is left out
    // metadata of the original; absent when it could not be looked at
    bool has_metadata = false;
    std::uint32_t mode = 0; // permission bits
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::string owner; // names, empty when the system has none
    std::string group;
    std::int64_t mtime_ns = 0; // nanoseconds since 1970
    // content, of everything stored but directories and links: an object, or blocks with a map
    std::string object; // its name in the store
    std::uint64_t size = 0;
    std::uint64_t stored_size = 0; // of blocks: of those that the set added
    MapPlace map;
    // of a file that is no database: what says, with its size and mtime_ns, that it is the same one
    // still; 0: not known
    std::int64_t ctime_ns = 0;
    std::uint64_t inode = 0;
    // the plain bytes that no set before had in the same place; not known of sets of earlier
    // releases
    std::optional<std::uint64_t> changed_size;
    std::string target;     // of a link: what it names, byte for byte
    int prepare_status = 0; // what the module answered, 0 when it was not asked
    // of a database that is transaction-logged: its instance, 34 characters as the module writes
    // it; empty: not logged, or not known
    std::string dbiid;
    // of a database: a restore put it in place since its copy before, so that no log leads from
    // that one to this, whatever their instances
    bool restored = false;
    // when its content was complete, in seconds since 1970, rounded up: no later change is in it,
    // and of a database perhaps none since its copy began, as the server chooses; 0: not known
    std::int64_t copied = 0;
    std::optional<LogIdentity> log;
    std::vector<std::string> warnings;
};

// What a backup of the whole system did not save on purpose.
struct LeftOutFiles {
    std::uint64_t made_anew = 0; // the server makes them when it needs them
    std::uint64_t excluded = 0;  // somebody said so
    std::uint64_t special = 0;   // sockets, FIFOs and devices
    bool any() const { return made_anew + excluded + special > 0; }
};

struct Manifest {
    std::string set;
    std::string level;
    std::int64_t started = 0; // seconds since 1970
    std::int64_t ended = 0;
    bool complete = false;        // every item was stored
    std::string close_error;      // why the module's operation did not close well, if so
    std::string reason;           // "owed": it makes up for what an earlier run left; else empty
    std::string base;             // differential, incremental: the full set that it builds on
    std::string previous;         // incremental: the newest set before it whose logs it continues
    std::string predecessor;      // the newest set of this server before it; empty: not known
    std::vector<LogGap> log_gaps; // in the chain up to this set
    bool whole_system = false;
    bool other_files = false; // with what lies beside the files of the module's kinds
    LeftOutFiles left_out;
    std::vector<std::string> arguments; // the DATABASE arguments as resolved paths
    std::string server_name;            // as --server gave it; of sets of earlier releases the host
    bool names_server = false;          // not a set of an earlier release
    std::string own_name;               // the server's own, from its notes.ini; empty: not known
    std::string id_file;                // likewise
    std::string host;
    std::string notes_ini;
    std::string data_directory;
    std::string client_version;
    std::string module_file;
    std::string module_client;
    std::string module_version;
    std::string module_release;
    std::uint64_t new_bytes = 0; // bytes that this set added to the store
    std::vector<ManifestItem> items;
};

const char* item_kind_name(ItemKind kind);

// Whether the content of the item is stored in blocks.
inline bool is_in_blocks(const ManifestItem& item) {
    return !item.map.file.empty();
}

// Whether a file of this name is an attachment object: ".nlo". Databases refer to it, and it is
// never changed.
bool is_attachment_object(const std::string& path);

// "complete", "incomplete", with ", close failed" where the module's operation did not close and
// ", logs missing" where the chain of logs has a gap.
std::string status_text(const Manifest& manifest);

// "full", "full (named)" for one of some databases, "full (owed)" where it has a reason.
std::string level_text(const Manifest& manifest);

struct ManifestTotals {
    std::size_t databases = 0;
    std::size_t stored_items = 0;       // directories not counted
    std::size_t other_files = 0;        // among them: files and links that the client found itself
    std::size_t attachment_objects = 0; // among them, too; not counted as other files
    std::size_t failed_items = 0;
    std::size_t left_out_databases = 0;
    std::size_t warnings = 0;
    std::uint64_t bytes = 0;
    std::optional<std::uint64_t> changed_bytes = 0; // nothing: a set of an earlier release
};
ManifestTotals totals(const Manifest& manifest);

// "left out: 3 files that the server makes anew, 1 excluded, ..." with what there is, and
// {"made_anew", "excluded", "special"}. REQUIRES, for the text: there is any.
std::string left_out_text(const LeftOutFiles& left_out);
// Lines that name the databases that could not be saved and were left out; empty without any.
std::string left_out_databases_text(const Manifest& manifest);
nlohmann::json left_out_json(const LeftOutFiles& left_out);

// The bytes of the manifest's file.
std::string serialize(const Manifest& manifest);

// Reads them back. Returns nothing with `problem` set for anything that serialize did not write, or
// that is not the manifest of `set`.
std::optional<Manifest> parse_manifest(const std::string& bytes, const std::string& set,
                                       std::string& problem);

} // namespace qrtln
