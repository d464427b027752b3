#include "client/acceptance/links_check.h"

#include "client/backup/directory_links.h"
#include "client/backup/system_files.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/database_link.h"
#include "client/domino/notes_ini.h"

#include <fmt/format.h>

namespace qrtln::acceptance {

namespace {

constexpr std::size_t links_named_at_most = 20;

// Names of one kind, as many as are worth reading.
class Named {
  public:
    Named(const LocalRequest& request) : m_request(request) {}
    void add(const std::string& path, const std::string& what = {}) {
        if (++m_count > links_named_at_most || m_request.hide_names)
            return;
        m_text += (m_text.empty() ? "" : ", ") +
                  for_terminal(path_below(path, m_request.ini.data_directory)) + what;
    }
    std::size_t count() const { return m_count; }
    std::string text() const {
        return m_text.empty()
                   ? ""
                   : fmt::format(": {}{}", m_text, m_count > links_named_at_most ? ", ..." : "");
    }

  private:
    const LocalRequest& m_request;
    std::size_t m_count = 0;
    std::string m_text;
};

class Links {
  public:
    Links(Report& report, const LocalRequest& request)
        : m_report(report), m_request(request), m_symbolic(request), m_folders(request),
          m_databases(request), m_unreadable(request) {}

    void find() {
        const NotesIni& ini = m_request.ini;
        find_system_files(
            ini, PathRules({}, ini.data_directory),
            [](const std::string&, const struct stat&) { return false; },
            [this](const FoundFile& found) { take(found); });
    }
    bool take_database(const std::string& path) {
        std::optional<std::string> target = database_link_target(path);
        if (!target)
            return false;
        m_databases.add(path, fmt::format(" (leads to {})", for_terminal(*target)));
        return true;
    }
    void pass_over(const std::string& path, const std::string& reason) {
        m_unreadable.add(path, fmt::format(" ({})", printable_utf8(reason)));
    }
    void tell() {
        say(m_symbolic, " symbolic links", false);
        say(m_folders, fmt::format(" directory links, with {} databases behind them", m_behind),
            true);
        say(m_databases, " database links", true);
        say(m_unreadable, " things that a backup would pass over", true);
        if (m_symbolic.count() + m_folders.count() + m_databases.count() + m_unreadable.count() ==
            0)
            m_report.add({Step::without_library, "links", Verdict::ok, "none", {}, false});
    }

  private:
    void take(const FoundFile& found) {
        if (found.type == FoundFile::Type::link)
            m_symbolic.add(found.path);
        else if (found.type == FoundFile::Type::unreadable)
            pass_over(found.path, found.problem);
        else if (found.type == FoundFile::Type::file && is_directory_link(found.path)) {
            LinkedDatabases behind = databases_behind(found.path, m_request.ini);
            if (behind.target.empty() && behind.unknown.empty())
                return; // a file of that name, and no more
            m_folders.add(found.path);
            m_behind += behind.databases.size();
        }
    }
    void say(const Named& named, const std::string& what, bool unexpected) {
        if (named.count() > 0)
            m_report.add({Step::without_library,
                          "links",
                          unexpected ? Verdict::told : Verdict::ok,
                          std::to_string(named.count()) + what + named.text(),
                          {},
                          false});
    }

    Report& m_report;
    const LocalRequest& m_request;
    Named m_symbolic;
    Named m_folders;
    Named m_databases;
    Named m_unreadable;
    std::size_t m_behind = 0;
};

} // namespace

std::vector<std::string> check_links(Report& report, const LocalRequest& request,
                                     const SelectionScan& scan) {
    Links links(report, request);
    links.find();
    std::vector<std::string> databases;
    for (const std::string& path : scan.databases)
        if (!links.take_database(path))
            databases.push_back(path);
    for (const auto& [path, reason] : scan.unreachable)
        links.pass_over(path, reason);
    links.tell();
    return databases;
}

} // namespace qrtln::acceptance
