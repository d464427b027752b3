#include "client/backup/system_files.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/original.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <optional>

namespace qrtln {

namespace {

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

LeftOutFiles find_system_files(const NotesIni& ini, const PathRules& rules, const KnownFile& known,
                               const std::function<void(const FoundFile&)>& found) {
    return Walker(ini, rules, known, found).run();
}

} // namespace qrtln
