#include "client/backup/path_rules.h"

#include "client/base/error.h"
#include "client/base/text.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <fnmatch.h>

namespace qrtln {

namespace {

// What is there only for the moment, made anew from databases, or true only for the store that says
// so (qrtln_archive.json).
constexpr std::array made_anew = {"*.ft/",
                                  "*.lck",
                                  "*.tmp",
                                  "~*.dtf",
                                  "noteids_list.txt",
                                  "qrtln_archive.json",
                                  ".qrtln-restore-*",
                                  "lost+found/"};

} // namespace

PathRules::PathRules(const std::vector<PathRule>& given, const std::string& data_directory) {
    auto add = [this](std::string pattern, Verdict verdict) {
        bool only_folders = pattern.ends_with('/');
        while (pattern.ends_with('/'))
            pattern.pop_back();
        bool whole_path = pattern.find('/') != std::string::npos;
        m_rules.push_back({std::move(pattern), only_folders, whole_path, verdict});
    };
    for (const char* pattern : made_anew)
        add(pattern, Verdict::made_anew);
    for (const PathRule& rule : given) {
        std::string pattern = rule.pattern;
        if (pattern.starts_with(data_directory + "/"))
            pattern.erase(0, data_directory.size() + 1);
        if (pattern.find_first_not_of('/') == std::string::npos || pattern.starts_with('/'))
            throw ClientError(
                ExitCode::usage,
                fmt::format("{} '{}': no file below the data directory has such a path",
                            rule.include ? "--include" : "--exclude", for_terminal(rule.pattern)),
                fmt::format("give the path below {}, or a name; \"*\" and \"?\" "
                            "stand for any characters",
                            for_terminal(data_directory)));
        add(pattern, rule.include ? Verdict::taken : Verdict::excluded);
    }
}

PathRules::Verdict PathRules::of(const std::string& relative, bool folder) const {
    for (auto rule = m_rules.rbegin(); rule != m_rules.rend(); ++rule)
        if (matches(*rule, relative, folder))
            return rule->verdict;
    return Verdict::taken;
}

bool PathRules::acknowledges(const std::string& relative) const {
    for (auto rule = m_rules.rbegin(); rule != m_rules.rend(); ++rule) {
        bool names_all = rule->pattern.find_first_not_of('*') == std::string::npos;
        bool all_excluded = names_all && rule->verdict == Verdict::excluded;
        if (!all_excluded && matches(*rule, relative, false))
            return rule->verdict == Verdict::excluded;
    }
    return false;
}

// Goes through the path and the folders above it.
bool PathRules::matches(const Rule& rule, const std::string& relative, bool folder) {
    for (std::size_t start = 0; start <= relative.size();) {
        std::size_t end = std::min(relative.find('/', start), relative.size());
        bool is_folder = folder || end < relative.size();
        std::string part =
            rule.whole_path ? relative.substr(0, end) : relative.substr(start, end - start);
        if ((is_folder || !rule.only_folders) &&
            ::fnmatch(rule.pattern.c_str(), part.c_str(), 0) == 0)
            return true;
        start = end + 1;
    }
    return false;
}

} // namespace qrtln
