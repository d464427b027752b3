#include "client/acceptance/database_trial.h"

#include "client/acceptance/documents_away.h"
#include "client/acceptance/notes_backup.h"
#include "client/base/text.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <sys/stat.h>

namespace qrtln::acceptance {

namespace {

constexpr std::size_t documents_to_move = 8;

std::string in_folder(const ProbeRequest& request, const char* name) {
    return fmt::format("{}/{}", request.folder, name);
}

NamedDatabase copy_in(const ProbeRequest& request, const char* name) {
    return {in_folder(request, name), std::string("the copy ") + name};
}

std::uint64_t file_size(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

std::string counted(std::size_t count) {
    return std::to_string(count) + " documents";
}

std::set<NOTEID> documents_in(Teller& teller, const NamedDatabase& named) {
    OpenDatabase open(teller, named);
    std::set<NOTEID> found = documents_of(teller, open, named.shown);
    open.close();
    return found;
}

// Which moment the copy is of that was made while `last` was away at its end.
void judge_busy_copy(Teller& teller, const std::set<NOTEID>& before, NOTEID last,
                     const std::set<NOTEID>& copied, std::uint64_t changes) {
    const std::string recorded = human_bytes(changes) + " of changes were recorded";
    const bool has_last = copied.contains(last);
    if (!has_last && copied.size() + 1 == before.size())
        teller.ok("writes", "the copy opens and is as of NSFBackupStop; " + recorded);
    else if (has_last && copied.size() == before.size())
        teller.told("writes", "the copy opens and is as of NSFBackupStart; " + recorded);
    else
        teller.stop(
            "writes",
            fmt::format(
                "the copy has {}: neither those of its start, {}, nor one less, as at its stop; {}",
                counted(copied.size()), before.size(), recorded));
    if (changes == 0)
        teller.told("writes", "no change was recorded although documents were deleted meanwhile");
}

void copy_under_writes(Teller& teller, const ProbeRequest& request, const OpenDatabase& live,
                       DocumentsAway& away, const std::vector<NOTEID>& moved,
                       std::uint64_t& changes) {
    const std::string target = in_folder(request, busy_copy);
    Backup backup(teller, live, request.test_database);
    const std::uint64_t half = backup.size() / 2;
    backup.copy(target, 0, half);
    for (NOTEID id : moved)
        away.take(id);
    for (std::size_t i = 0; i + 1 < moved.size(); ++i)
        away.bring_back(moved[i]);
    backup.copy(target, half, backup.size());
    changes = backup.apply_changes(target);
    backup.end(complete);
}

// The logs that a recovery asked for. The callback carries no argument of ours.
struct AskedLogs {
    Teller* teller = nullptr;
    std::size_t asked = 0;
    std::size_t missing = 0;
};
AskedLogs asked_logs;

STATUS on_log_asked(UNIVERSALNOTEID*, DWORD, char* path) {
    ++asked_logs.asked;
    const bool there = path != nullptr && ::access(path, R_OK) == 0;
    asked_logs.missing += there ? 0 : 1;
    asked_logs.teller->undoing("NSFRecoverDatabases(the copy), which asked for a log");
    return there ? 0 : 1;
}

void roll_forward(Teller& teller, const std::string& copy) {
    std::vector<char> names = lmbcs_path(teller, copy); // the rest of it is NULs: a list of one
    WORD place = 0;
    asked_logs = {&teller, 0, 0};
    teller.calling("NSFRecoverDatabases(the copy)");
    constexpr DWORD keep_identity = 4;
    const STATUS status =
        notes_api.NSFRecoverDatabases(names.data(), on_log_asked, keep_identity, &place, nullptr);
    const Statuses statuses = {{"NSFRecoverDatabases", status}};
    const std::string logs = fmt::format("{} logs were asked for, {} were not there",
                                         asked_logs.asked, asked_logs.missing);
    if (status != kNotesNoError)
        teller.stop(
            "recovery",
            fmt::format("the copy is not rolled forward: {}; {}", status_text(status), logs),
            statuses);
    teller.ok("recovery", "the copy is rolled forward to the end of the logs; " + logs, statuses);
}

// Brings a database online again, whatever happens.
class OfflineDatabase {
  public:
    OfflineDatabase(Teller& teller, const NamedDatabase& named, std::vector<char> path)
        : m_teller(teller), m_shown(named.shown), m_path(std::move(path)) {
        teller.leaves("offline", m_shown + " is offline: bring it online at the server's console");
    }
    ~OfflineDatabase() {
        if (m_offline)
            (void)online();
    }
    OfflineDatabase(const OfflineDatabase&) = delete;
    OfflineDatabase& operator=(const OfflineDatabase&) = delete;
    STATUS online() {
        m_teller.undoing(fmt::format("NSFBringDatabaseOnline({})", m_shown));
        const STATUS status = notes_api.NSFBringDatabaseOnline(m_path.data(), 0);
        m_offline = status != kNotesNoError;
        if (!m_offline)
            m_teller.leaves("offline", "");
        return status;
    }

  private:
    Teller& m_teller;
    const std::string m_shown;
    std::vector<char> m_path;
    bool m_offline = true;
};

} // namespace

void trial_quiet_backup(Teller& teller, const ProbeRequest& request) {
    const NamedDatabase& test = request.test_database;
    Runtime runtime(teller, request.ini);
    OpenDatabase live(teller, test);
    const std::set<NOTEID> documents = documents_of(teller, live, test.shown);
    if (documents.size() > most_test_documents)
        teller.stop("documents",
                    fmt::format("{} has {}: make a small database for this, of at most {}",
                                test.shown, counted(documents.size()), most_test_documents));
    {
        Backup given_up(teller, live, test);
        given_up.end(give_up);
    }
    teller.ok("backup", "begun and given up", {{"NSFBackupStart", 0}, {"NSFBackupEnd 1", 0}});
    const std::string target = in_folder(request, quiet_copy);
    Backup backup(teller, live, test);
    const std::uint64_t size = backup.size();
    const std::uint64_t in_file = file_size(test.path);
    backup.copy(target, 0, size);
    backup.apply_changes(target);
    backup.end(complete);
    const std::string sizes =
        fmt::format("NSFBackupStart says {} bytes, the file has {}", size, in_file);
    if (size != in_file)
        teller.told("size", sizes);
    teller.ok("backup", "begun, copied and completed; " + sizes,
              {{"NSFBackupStart", 0}, {"NSFBackupEnd 0", 0}});
    const std::set<NOTEID> copied = documents_in(teller, copy_in(request, quiet_copy));
    if (copied != documents)
        teller.stop("copy", fmt::format("the copy has {}, the database {}", counted(copied.size()),
                                        documents.size()));
    teller.ok("copy", "it opens and has the same " + counted(copied.size()));
}

void trial_busy_backup(Teller& teller, const ProbeRequest& request) {
    const NamedDatabase& test = request.test_database;
    Runtime runtime(teller, request.ini);
    OpenDatabase live(teller, test);
    const std::set<NOTEID> before = documents_of(teller, live, test.shown);
    if (before.empty())
        return teller.told("writes", test.shown + " has no document: a backup under writes was "
                                                  "not tried");
    std::vector<NOTEID> moved(before.begin(), before.end());
    moved.resize(std::min(moved.size(), documents_to_move));
    std::uint64_t changes = 0;
    {
        OpenDatabase source(teller, copy_in(request, quiet_copy));
        DocumentsAway away(teller, live, source, test.shown);
        copy_under_writes(teller, request, live, away, moved, changes);
        away.bring_back(moved.back());
    }
    const std::set<NOTEID> copied = documents_in(teller, copy_in(request, busy_copy));
    judge_busy_copy(teller, before, moved.back(), copied, changes);
    const std::set<NOTEID> after = documents_of(teller, live, test.shown);
    if (after.size() != before.size())
        teller.stop("documents", fmt::format("{} has {} now, it had {}.", test.shown,
                                             counted(after.size()), before.size()));
    if (after != before)
        teller.told("documents", "documents that were brought back have other note ids");
    else
        teller.ok("documents", counted(moved.size()) + " were deleted and brought back");
}

void trial_recovery(Teller& teller, const ProbeRequest& request) {
    const std::string copy = in_folder(request, recovered_copy);
    std::filesystem::copy_file(in_folder(request, quiet_copy), copy);
    Runtime runtime(teller, request.ini);
    {
        OpenDatabase live(teller, request.test_database);
        BOOL logged = 0;
        UNIVERSALNOTEID log{};
        UNIVERSALNOTEID instance{};
        DWORD extent = 0;
        teller.calling(fmt::format("NSFDbGetLogInfo({})", request.test_database.shown));
        const STATUS status =
            notes_api.NSFDbGetLogInfo(live.handle(), 0, &logged, &log, &instance, &extent);
        if (status != kNotesNoError || logged == 0)
            return teller.told("recovery", request.test_database.shown +
                                               " is not logged: a recovery was not tried");
    }
    roll_forward(teller, copy);
    const std::set<NOTEID> live = documents_in(teller, request.test_database);
    const std::set<NOTEID> recovered = documents_in(teller, copy_in(request, recovered_copy));
    if (recovered != live)
        teller.stop("recovery",
                    fmt::format("the recovered copy has {}, the live database {}, or others",
                                counted(recovered.size()), live.size()));
    teller.ok("recovery", fmt::format("it has the {} of the live database", counted(live.size())));
}

void trial_offline(Teller& teller, const ProbeRequest& request) {
    const NamedDatabase& test = request.test_database;
    Runtime runtime(teller, request.ini);
    std::vector<char> path = lmbcs_path(teller, test);
    teller.calling(fmt::format("NSFTakeDatabaseOffline({})", test.shown));
    teller.leaves("offline", test.shown + " may be offline: look, and bring it online at the "
                                          "server's console");
    const STATUS taken = notes_api.NSFTakeDatabaseOffline(path.data(), 0, 0);
    if (taken != kNotesNoError)
        teller.leaves("offline", "");
    if (taken != kNotesNoError)
        teller.stop("offline",
                    fmt::format("{} is not taken offline: {}", test.shown, status_text(taken)),
                    {{"NSFTakeDatabaseOffline", taken}});
    OfflineDatabase offline(teller, test, path);
    DBHANDLE handle = 0;
    teller.calling(fmt::format("NSFDbOpen({}), which is offline", test.shown));
    const STATUS opened = notes_api.NSFDbOpen(path.data(), &handle);
    if (opened == kNotesNoError) {
        notes_api.NSFDbClose(handle);
        teller.told("offline", test.shown + " can be opened although it is offline",
                    {{"NSFDbOpen", opened}});
    }
    const STATUS online = offline.online();
    if (online != kNotesNoError)
        teller.stop("online", fmt::format("{} stays offline: {}", test.shown, status_text(online)),
                    {{"NSFBringDatabaseOnline", online}});
    documents_in(teller, test);
    teller.ok("offline",
              "offline and online again; while it is offline NSFDbOpen answers " +
                  status_text(opened),
              {{"NSFTakeDatabaseOffline", taken},
               {"NSFDbOpen", opened},
               {"NSFBringDatabaseOnline", online}});
}

} // namespace qrtln::acceptance
