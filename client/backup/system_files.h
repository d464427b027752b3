// The files below the data directory that the module does not know: key rings, pages, classes,
// links. The client finds and saves them itself.
#pragma once

#include "client/domino/notes_ini.h"
#include "client/sets/manifest.h"
#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <functional>
#include <map>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace qrtln {

// One --exclude or --include.
struct PathRule {
    std::string pattern;
    bool include = false;
};

// Which paths are left out: what the server makes anew, and what somebody says. A pattern is
// matched against the path below the data directory, one without "/" against each component of it;
// what matches a folder holds for all below it, and a "/" at the end says that only folders are
// meant. "*" matches "/", too. The last rule that matches decides.
class PathRules {
  public:
    enum class Verdict { taken, made_anew, excluded };

    // Full paths below the data directory are taken for relative ones. Throws ClientError(usage)
    // for a pattern that no path can match.
    PathRules(const std::vector<PathRule>& given, const std::string& data_directory);

    // Of a path below the data directory, without a leading "/".
    Verdict of(const std::string& relative, bool folder) const;

    // Whether somebody said that the database may be missing. "*" is said of files alone.
    bool acknowledges(const std::string& relative) const;

  private:
    struct Rule {
        std::string pattern;
        bool only_folders;
        bool whole_path; // else each component by itself
        Verdict verdict;
    };
    static bool matches(const Rule& rule, const std::string& relative, bool folder);

    std::vector<Rule> m_rules;
};

struct FoundFile {
    enum class Type { file, link, folder, unreadable };
    std::string path; // below the data directory's text
    Type type = Type::file;
    struct stat status {};
    std::string problem; // of what is unreadable: a folder, or what cannot be looked at
};

// Whether somebody else saves what is there, whatever the rules say. Not asked for folders.
using KnownFile = std::function<bool(const std::string& path, const struct stat& status)>;

// Walks the data directory, the names of a folder in their order: no link is followed. What is
// known, and the transaction log, is passed over. Returns what was left out. Throws when
// interrupted.
LeftOutFiles find_system_files(const NotesIni& ini, const PathRules& rules, const KnownFile& known,
                               const std::function<void(const FoundFile&)>& found);

// The databases behind a directory link: a file NAME.dir whose first line names a folder, or a
// database, outside the data directory. The server shows them below NAME beside the file, which is
// the shown folder, relative to the data directory.
struct LinkedDatabases {
    std::vector<std::string> databases;                       // full paths where they really are
    std::vector<std::pair<std::string, std::string>> unknown; // paths with what kept from a look
    std::string target;                                       // what the first line names
};
bool is_directory_link(const std::string& path); // by its name
std::string shown_folder(const std::string& link, const std::string& data_directory);
LinkedDatabases databases_behind(const std::string& link, const NotesIni& ini);

// What the sets have of each path: the base of a differential or incremental backup, and the sets
// of the same server since then.
class HeldFiles {
  public:
    HeldFiles(Store& store, const std::string& base, const ServerScope& scope);

    // Whether the newest set that has the path has it as it is now, by size and modification time,
    // or by a link's target; with `since_base` also the base itself.
    bool has(const ManifestItem& now, std::uint64_t size, bool since_base) const;

    // Whether the newest item of the path is of one of the module's kinds.
    bool is_of_module(const std::string& path) const;

  private:
    struct Held {
        ItemKind kind;
        std::uint64_t size;
        std::int64_t mtime_ns;
        std::string target;
    };
    std::map<std::string, Held> m_base;
    std::map<std::string, Held> m_newest; // where that is another than the base's
};

} // namespace qrtln
