#include "client/backup/system_files.h"

#include "client/backup/arguments.h"
#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/database_link.h"
#include "client/domino/original.h"
#include "client/sets/catalogue.h"
#include "client/sets/server_scope.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <optional>
#include <strings.h>

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
constexpr std::string_view link_ending = ".dir";

class Walker {
  public:
    Walker(const NotesIni& ini, const PathRules& rules, const KnownFile& known,
           const std::function<void(const FoundFile&)>& found)
        : m_data(ini.data_directory), m_log_directory(log_directory(ini)), m_rules(rules),
          m_known(known), m_found(found) {
        m_log_folder_known =
            !m_log_directory.empty() && ::stat(m_log_directory.c_str(), &m_log_folder) == 0;
    }
    LeftOutFiles run() {
        folder(m_data, 0, true);
        return m_left_out;
    }

  private:
    bool is_left_out(const std::string& path, bool folder) {
        PathRules::Verdict verdict = m_rules.of(path_below(path, m_data), folder);
        if (verdict == PathRules::Verdict::taken)
            return false;
        if (!folder)
            ++(verdict == PathRules::Verdict::excluded ? m_left_out.excluded
                                                       : m_left_out.made_anew);
        return true;
    }

    void unreadable(const std::string& path, const std::string& problem) {
        m_found({path, FoundFile::Type::unreadable, {}, problem});
    }

    // Whoever leaves a folder out does not mind what cannot be read there; databases are another's.
    void unreadable_folder(const std::string& path, bool taken, const std::string& problem) {
        if (taken)
            unreadable(path, problem);
    }

    // Read whole first: one open folder at a time, however deep the tree.
    std::vector<std::string> names_in(const std::string& path, int flags, bool taken,
                                      struct stat& status) {
        FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags));
        std::optional<std::vector<std::string>> names;
        if (fd && ::fstat(fd.get(), &status) == 0)
            names = names_in_folder(fd.get());
        if (!names && errno != ENOENT)
            unreadable_folder(path, taken,
                              "the folder cannot be read, nothing below it was saved: " +
                                  system_error_text(errno));
        return names.value_or(std::vector<std::string>());
    }

    void folder(const std::string& path, int flags, bool taken) {
        throw_if_interrupted();
        struct stat status {};
        std::vector<std::string> names = names_in(path, flags, taken, status);
        bool holds_logs = m_log_directory.empty() ||
                          (m_log_folder_known && status.st_dev == m_log_folder.st_dev &&
                           status.st_ino == m_log_folder.st_ino);
        for (const std::string& name : names)
            entry(path + "/" + name, holds_logs);
    }

    void entry(const std::string& path, bool beside_logs) {
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) {
            if (errno != ENOENT && !is_left_out(path, false))
                unreadable(path, "cannot look at it: " + system_error_text(errno));
            return;
        }
        if (S_ISDIR(status.st_mode)) {
            bool taken = !is_left_out(path, true);
            if (taken)
                m_found({path, FoundFile::Type::folder, status, {}});
            folder(path, O_NOFOLLOW, taken);
            return;
        }
        ItemKind kind = item_kind_of(path);
        bool log = kind == ItemKind::log || kind == ItemKind::log_control;
        if ((beside_logs && log) || m_known(path, status) || is_left_out(path, false))
            return;
        if (S_ISREG(status.st_mode))
            m_found({path, FoundFile::Type::file, status, {}});
        else if (S_ISLNK(status.st_mode))
            m_found({path, FoundFile::Type::link, status, {}});
        else
            ++m_left_out.special;
    }

    const std::string m_data;
    const std::string m_log_directory; // empty: not known
    const PathRules& m_rules;
    const KnownFile& m_known;
    const std::function<void(const FoundFile&)>& m_found;
    struct stat m_log_folder {};
    bool m_log_folder_known = false;
    LeftOutFiles m_left_out;
};

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
            throw ClientError(ExitCode::usage,
                              std::string(rule.include ? "--include '" : "--exclude '") +
                                  for_terminal(rule.pattern) +
                                  "': no file below the data directory has such a path",
                              "give the path below " + for_terminal(data_directory) +
                                  ", or a name; \"*\" and \"?\" stand for any characters");
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

LeftOutFiles find_system_files(const NotesIni& ini, const PathRules& rules, const KnownFile& known,
                               const std::function<void(const FoundFile&)>& found) {
    return Walker(ini, rules, known, found).run();
}

bool is_directory_link(const std::string& path) {
    std::string_view name = std::string_view(path).substr(path.rfind('/') + 1);
    return name.size() > link_ending.size() &&
           ::strcasecmp(name.data() + name.size() - link_ending.size(), link_ending.data()) == 0;
}

std::string shown_folder(const std::string& link, const std::string& data_directory) {
    std::string relative = path_below(link, data_directory);
    return relative.substr(0, relative.size() - link_ending.size());
}

LinkedDatabases databases_behind(const std::string& link, const NotesIni& ini) {
    LinkedDatabases result;
    std::optional<std::string> content = read_small_file(AT_FDCWD, link, maximal_link_file);
    if (!content)
        return result; // what cannot be read fails as a file
    std::optional<std::string> target = link_target(*content);
    struct stat status {};
    if (!target)
        return result;
    if (::stat(target->c_str(), &status) != 0) {
        if (errno != ENOENT && errno != ENOTDIR)
            result.unknown.emplace_back(*target, "cannot look at it: " + system_error_text(errno));
        return result;
    }
    result.target = *target;
    // The module reaches what lies in the data directory by itself.
    std::string real = real_path(*target).value_or(*target);
    if (is_below(real, real_path(ini.data_directory).value_or(ini.data_directory)))
        return result;
    SelectionScan scan = scan_selection(result.target, {});
    result.databases = std::move(scan.databases);
    result.unknown = std::move(scan.unreachable);
    return result;
}

HeldFiles::HeldFiles(Store& store, const std::string& base, const ServerScope& scope) {
    for (const std::string& name : store.set_names()) {
        if (name < base)
            continue;
        CatalogueEntry entry = load_set(store, name, scope);
        if (!entry.manifest)
            continue;
        for (ManifestItem& item : entry.manifest->items) {
            if (item.status != ItemStatus::stored)
                continue;
            Held held{item.kind, item.size, item.has_metadata ? item.mtime_ns : INT64_MIN,
                      std::move(item.target)};
            (name == base ? m_base : m_newest)[std::move(item.path)] = std::move(held);
        }
    }
}

bool HeldFiles::has(const ManifestItem& now, std::uint64_t size, bool since_base) const {
    auto same = [&](const Held& held) {
        if (now.kind == ItemKind::directory || now.kind == ItemKind::link)
            return held.kind == now.kind && held.target == now.target;
        bool file = held.kind == ItemKind::file || held.kind == ItemKind::other;
        return file && held.size == size && held.mtime_ns == now.mtime_ns;
    };
    auto base = m_base.find(now.path);
    auto newest = m_newest.find(now.path);
    bool in_base = base != m_base.end() && same(base->second);
    bool in_newest = newest != m_newest.end() ? same(newest->second) : in_base;
    return in_newest && (in_base || !since_base);
}

bool HeldFiles::is_of_module(const std::string& path) const {
    auto held = m_newest.find(path);
    if (held == m_newest.end()) {
        held = m_base.find(path);
        if (held == m_base.end())
            return false;
    }
    return held->second.kind != ItemKind::other && held->second.kind != ItemKind::link;
}

} // namespace qrtln
