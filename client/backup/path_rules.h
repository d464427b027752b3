// Which files below the data directory a backup leaves out: --exclude and --include.
#pragma once

#include <string>
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

} // namespace qrtln
