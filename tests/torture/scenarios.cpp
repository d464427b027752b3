// Backups; restores with activation, of deleted and of changed documents, and with a recovery.
#include "tests/torture/trial.h"

#include <cstring>
#include <set>
#include <sstream>

namespace qrtln::torture {

namespace {

std::set<std::string> lines_of(const std::string& text) {
    std::set<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.insert(line);
    return lines;
}

// Changes a database while it is copied: set before the module is loaded.
std::string s_write_during_copy;

void trace_and_write(const char* text) {
    Module::s_traces.emplace_back(text);
    if (!s_write_during_copy.empty() &&
        Module::s_traces.back().starts_with("PrepareOpenDbForBackup(): File size == ")) {
        std::string command = std::exchange(s_write_during_copy, "");
        if (std::system(command.c_str()) != 0)
            throw std::runtime_error("failed: " + command);
    }
}

class Backup : public Scenario {
  public:
    explicit Backup(DB_OPERATION_LEVEL level) : m_level(level) {}

    void prepare(const Workspace& workspace) override {
        // A full backup has been made, so that there is an index; then two databases became other
        // instances: the index that this backup writes differs.
        for (const char* name : {"names.nsf", "mail/user1.nsf", "small.nsf"})
            workspace.markSaved(name);
        Backup former(DB_LEVEL_FULL);
        if (!run_once(workspace, former, {}).done || workspace.index().empty())
            throw std::runtime_error("the backup that makes the index failed");
        for (const char* name : {"names.nsf", "mail/user1.nsf"}) {
            workspace.simulate("compact " + workspace.server() + " " + name);
            workspace.markSaved(name);
        }
        workspace.simulate("create " + workspace.server() + " never.nsf --notes 2");
        // Found by a search of its own, after everything else.
        workspace.folder.write("server/data/attachments/one.nlo", "attachment");
        // Each change nearly fills an extent: some are ready to be archived.
        for (int i = 0; i < 3; ++i)
            workspace.put("names.nsf", "--count 5 --text " + std::string(9000, 'x'));
        if (m_level == DB_LEVEL_DIFF) {
            // Large enough for the server to hear how far its copy has got.
            workspace.simulate("create " + workspace.server() + " large.nsf --unlogged --notes 2");
            workspace.put("large.nsf", "--count 35 --text " + std::string(100'000, 'x'));
            if (fs::file_size(workspace.data("large.nsf")) < 101 * 32768)
                throw std::runtime_error("large.nsf is not large");
        }
        m_former = workspace.index();
    }

    bool operate(Trial& trial) override {
        Module& module = trial.module;
        m_saved.clear();
        s_write_during_copy = QRTLN_DOMINO_SIM " put " + trial.server.server() +
                              " names.nsf --count 3 --text changed > /dev/null";
        module.SetTrace(trace_and_write);
        bool done = trial.succeeded(
            module.open(trial.server, DB_TYPE_BCK, m_level,
                        {"DATABASE=NOTES", "SNC_TIME=20200101000000"})); // for a differential one
        while (done || !m_saved.empty()) {
            std::string item = module.get();
            if (item.empty()) {
                done = trial.succeeded(module.code) && done;
                break;
            }
            done = save(trial, item) && done;
        }
        // Items that the module skips never reach its host.
        for (const char* skipped : {"cannot be read", "could not be read to its end", "got error ",
                                    "NSFDbGetModifiedNoteTable() returned error ",
                                    "has a name that is not valid for the server"})
            done = done && !Trial::logged(skipped);
        if (m_level != DB_LEVEL_FULL)
            done = !Trial::logged("Checking if file needs to be backed up failure") && done;
        std::string items;
        for (const std::string& item : m_saved)
            items += item + "\n";
        trial.server.folder.write("items", items);
        m_stored = done;
        return trial.close(done) && done;
    }

    void learn(const Workspace& workspace) override {
        m_all = lines_of(workspace.folder.read("items"));
        m_later = workspace.index();
        bool has_logs = workspace.calls("NSFDoneArchivingLog(") != 0;
        // A differential backup has no logs.
        if (m_later == m_former || has_logs == (m_level == DB_LEVEL_DIFF) ||
            !m_all.contains(workspace.data("names.nsf")))
            throw std::runtime_error("a backup without a fault changes no index or marks no log");
    }

    void judge(Trial& trial, bool done) override {
        const Workspace& server = trial.server;
        trial.expect(server.filesBelow("tmp").empty() || trial.allows(leaves_copy),
                     "a copy is left under TMP_DIR");
        // A close that fails at the end of archiving leaves the working copy of the index, by
        // contract.
        std::size_t files = server.filesBelow("run").size();
        bool may_have_more =
            trial.fault.call.empty() || (m_stored && !done) || trial.allows(leaves_copy);
        trial.expect(files == 1 || (may_have_more && files == 2),
                     std::to_string(files) + " files instead of the index alone");
        if (trial.fault.call.empty()) {
            judge_without_fault(trial);
            return;
        }
        if (m_stored && trial.must_be_complete())
            trial.expect(m_saved == m_all || (lacks_logs(trial.fault) && m_saved == without_logs()),
                         "counts as done with other items than without a fault");
        judge_index(trial, done);
        // A log that was marked is gone from the server.
        trial.expect(m_stored || server.calls("NSFDoneArchivingLog(") == 0,
                     "a log was marked after a failure");
    }

    bool may_need_retry(const Fault& fault) const override {
        // A session that was not ended stays on the server; so does that of a process that ended.
        return m_level == DB_LEVEL_INCR &&
               (fault.call == "malloc" || fault.call == "NSFEndArchivingLogs" ||
                fault.call == "NSFGetTransLogStyle");
    }

  private:
    // Prepares, reads and finishes one item.
    bool save(Trial& trial, const std::string& item) {
        Module& module = trial.module;
        m_saved.insert(item);
        bool saved = true;
        if (!fs::is_directory(item)) {
            std::size_t logs = Module::s_logs.size();
            std::string file = module.prepare(item);
            saved = trial.succeeded(module.code) && fs::exists(file);
            trial.expect(saved || trial.server.filesBelow("tmp").empty() ||
                             trial.allows(leaves_copy),
                         "a failed preparation leaves its copy");
            // Hosts do not count such a copy as saved.
            saved =
                saved && !Trial::logged("NSFBackupEndApplyChangeInfo LN C API call failed", logs);
            trial.expect(!saved || !item.ends_with(".nsf") || same_content(file, item),
                         "the copy of " + item + " is not what it was");
        }
        return trial.succeeded(module.ItemFinishStatus(saved ? DB_ITEM_SUCCESS : DB_ITEM_FAIL)) &&
               saved;
    }

    // After a fault everything comes again, but for logs that are stored and, in an incremental
    // backup, databases that were prepared: those a host writes down as owed.
    void judge_without_fault(Trial& trial) const {
        for (const std::string& item : m_all)
            trial.expect(m_level == DB_LEVEL_INCR || item.ends_with(".TXN") ||
                             m_saved.contains(item),
                         "does not come again: " + item);
    }

    void judge_index(Trial& trial, bool done) const {
        std::string index = trial.server.index();
        if (!m_stored || !done) {
            trial.expect(index == m_former || (m_stored && index == m_later),
                         "the index changed although the backup failed, or is not whole");
            return;
        }
        // An entry that could not be asked for stays as it was: the next backup finds it outdated.
        std::set<std::string> former = lines_of(m_former);
        std::set<std::string> later = lines_of(m_later);
        for (const std::string& line : lines_of(index)) {
            // Where the server does not tell whether a database was ever backed up, it gets one.
            bool untold = trial.fault.call == "NSFIsNewBackupNeeded" &&
                          line.starts_with(trial.server.data("never.nsf="));
            trial.expect(untold || former.contains(line) || later.contains(line),
                         "the index has a line of its own: " + line);
        }
        for (const std::string& line : former)
            trial.expect(index.find("\n" + line.substr(0, line.find('=') + 1)) != index.npos,
                         "the index lost the entry " + line);
    }

    // A backup of everything can do without logs, where the server does not tell how it logs: it
    // keeps them.
    bool lacks_logs(const Fault& fault) const {
        return m_level == DB_LEVEL_FULL && fault.call == "NSFGetTransLogStyle";
    }

    // The items of a backup without a fault, without those logs that the host did not get.
    std::set<std::string> without_logs() const {
        std::set<std::string> items = m_all;
        std::erase_if(items, [this](const std::string& item) {
            bool log = item.ends_with(".TXN") || item.ends_with("nlogctrl.lfh");
            return log && !m_saved.contains(item);
        });
        return items;
    }

    DB_OPERATION_LEVEL m_level;
    std::string m_former;        // the index before
    std::string m_later;         // and after a backup without a fault
    std::set<std::string> m_all; // the items of such a backup
    std::set<std::string> m_saved;
    bool m_stored = false; // the host had everything and closed with STATUS=0
};

class Restore : public Scenario {
  public:
    bool operate(Trial& trial) override {
        std::vector<std::string> variables = control_variables(trial.server);
        bool opened =
            trial.succeeded(trial.module.open(trial.server, DB_TYPE_RST, DB_LEVEL_FULL, variables));
        bool done = opened;
        for (const char* name : m_handed_over)
            done = opened && hand_over(trial, name) && done;
        return trial.close(done) && done;
    }

  protected:
    explicit Restore(std::vector<const char*> names) : m_handed_over(std::move(names)) {}
    virtual std::vector<std::string> control_variables(const Workspace& server) const = 0;

    static std::string copy_of(const Workspace& workspace, const char* name) {
        return workspace.folder.file(std::string("tmp/") + name);
    }

  private:
    // Announces, writes and finishes a database as the host that has it in its store.
    static bool hand_over(Trial& trial, const std::string& name) {
        std::string path = trial.server.data(name);
        char item[1028] = "";
        path.copy(item, path.rfind('/'));
        if (!trial.succeeded(trial.module.SetItem(DB_ITEM_TYPE_DIRECTORY, item)))
            return false;
        std::strcpy(item, path.c_str());
        if (!trial.succeeded(trial.module.SetItem(DB_ITEM_TYPE_FILE, item)))
            return false;
        trial.server.copy(trial.server.stored(name), item); // where the module says
        return trial.succeeded(trial.module.ItemFinishStatus(DB_ITEM_SUCCESS));
    }

    std::vector<const char*> m_handed_over;
};

// One database that is lost, and one that is there and newer.
class Activation : public Restore {
  public:
    Activation() : Restore({lost, live}) {}

    void prepare(const Workspace& workspace) override {
        workspace.simulate("create " + workspace.server() + " plain.nsf --unlogged --notes 5");
        workspace.store(lost);
        workspace.store(live);
        workspace.put("plain.nsf", "--text newer");
        fs::remove(workspace.data(lost));
        m_newer = bytes_of(workspace.data(live));
        if (m_newer == bytes_of(workspace.stored(live)))
            throw std::runtime_error("the live database is not newer");
    }

    void judge(Trial& trial, bool done) override {
        for (const char* name : {lost, live}) {
            std::string stored = bytes_of(trial.server.stored(name));
            std::string copy = bytes_of(copy_of(trial.server, name));
            std::string found = bytes_of(trial.server.data(name));
            bool offline = trial.server.is_offline(name);
            std::string about = std::string(" (") + name + ")";
            trial.expect(copy.empty() || copy == stored, "a part of a copy is left" + about);
            // A copy over it that failed leaves it offline, with what the copy got to, and the
            // restored copy for the next try. Where there was none, there is none.
            bool broken = trial.fault.is_on_file() && !done && offline && copy == stored;
            trial.expect(found == (name == live ? m_newer : "") || found == stored || broken,
                         "the live database is half" + about);
            // A host has the database in its store: what it never wrote need not be here.
            trial.expect(!done || (found == stored && (copy.empty() || trial.allows(leaves_copy))),
                         "not restored" + about);
            trial.expect(!offline || broken || trial.fault.call == "NSFBringDatabaseOnline" ||
                             found == stored,
                         "offline, and not replaced" + about);
            trial.expect(!done || !offline, "offline" + about);
        }
    }

  private:
    static constexpr const char* lost = "mail/user1.nsf";
    // Not logged: bringing it online changes nothing in it, so that its bytes can be compared.
    static constexpr const char* live = "plain.nsf";

    std::vector<std::string> control_variables(const Workspace&) const override {
        return {"DATABASE=NOTES", "ACTIVATE=YES"};
    }

    std::string m_newer;
};

// Documents that were deleted, or changed, after their database was stored.
class Documents : public Restore {
  public:
    explicit Documents(bool changed) : Restore({database}), m_changed(changed) {}

    void prepare(const Workspace& workspace) override {
        m_ids = {workspace.put(database, "--text one"), workspace.put(database, "--text two")};
        workspace.store(database);
        m_untouched = workspace.put(database, "--text other");
        for (const std::string& id : m_ids)
            if (m_changed)
                workspace.put(database, "--text changed --id " + id);
            else
                workspace.simulate("delete " + workspace.server() + " " + database + " " + id);
        m_before = content_of(workspace.data(database));
    }

    void begin(const Workspace& workspace) override {
        if (m_changed)
            workspace.folder.write("server/data/noteids_list.txt",
                                   m_ids[0] + "\n" + m_ids[1] + "\n");
    }

    void judge(Trial& trial, bool done) override {
        std::string live = content_of(trial.server.data(database));
        std::string stored = content_of(trial.server.stored(database));
        trial.expect(!live.starts_with("unsound"), "the live database is " + live.substr(0, 60));
        trial.expect(rest_of_line(live, m_untouched) == rest_of_line(m_before, m_untouched),
                     "another document changed");
        for (const std::string& id : m_ids) {
            std::string note = rest_of_line(live, id);
            bool back = note == rest_of_line(stored, id);
            trial.expect(back || note == rest_of_line(m_before, id) ||
                             (note.empty() && may_be_lost(trial.fault)),
                         "document " + id + " is neither as it was nor restored");
            trial.expect(!done || back || !trial.must_be_complete(),
                         "counts as done, but document " + id + " is not back");
            // That a deleted one does not show as new is no failure of the restore, but is said.
            bool told = trial.said("setNotesAsUnread(): Could not") ||
                        trial.said("setNotesAsUnread(): Insert note");
            bool copied = trial.said("RestoreDeletedDocuments(): Copying note (" + id + ")");
            trial.expect(m_changed || !done || told || !copied || !trial.must_be_complete() ||
                             !rest_of_line(live, "unread " + id).empty(),
                         "document " + id + " came back read");
        }
        std::string copy = copy_of(trial.server, database);
        trial.expect(!fs::exists(copy) || same_content(copy, trial.server.stored(database)),
                     "the restored copy is not whole");
    }

    std::vector<Scenario*> repair(const Fault& fault) override {
        if (!may_be_lost(fault))
            return {this};
        // What is gone from the live database counts as deleted now; the restore of the changed
        // ones that follows judges it.
        m_of_lost = std::make_unique<Documents>(false);
        m_of_lost->m_untouched = m_untouched;
        m_of_lost->m_before = m_before;
        return {m_of_lost.get(), this};
    }

  private:
    static constexpr const char* database = "mail/user1.nsf";

    std::vector<std::string> control_variables(const Workspace&) const override {
        const char* kind = m_changed ? "chgd" : "deld";
        return {"DATABASE=NOTES", std::string("INFO=-o \"") + kind + "=202001010000\""};
    }

    // Whether a fault may cost the live database a document that the store has: a copy that fails.
    // Without the identity of a database the copy fails, too: the result of that call is not looked
    // at, by contract.
    bool may_be_lost(const Fault& fault) const {
        return m_changed && (fault.call == "NSFDbCopyNote" || fault.call == "NSFDbIDGet");
    }

    // The rest of the line of a database's content that begins so.
    static std::string rest_of_line(const std::string& content, const std::string& beginning) {
        std::istringstream lines(content);
        for (std::string line; std::getline(lines, line);)
            if (line.starts_with(beginning + " "))
                return line.substr(beginning.size());
        return "";
    }

    bool m_changed;
    std::vector<std::string> m_ids; // of the documents to restore
    std::string m_untouched;        // the id of another
    std::string m_before;           // content of the live database
    std::unique_ptr<Documents> m_of_lost;
};

// Restored copies: one whose original is there, and one whose original is lost.
class Recovery : public Restore {
  public:
    Recovery() : Restore({}) {}

    void prepare(const Workspace& workspace) override {
        for (const char* name : {live, lost}) {
            workspace.markSaved(name);
            workspace.store(name);
            workspace.put(name, "--text later");
            m_expected[name] = content_of(workspace.data(name));
        }
        m_former[live] = bytes_of(workspace.data(live));
        fs::remove_all(workspace.data("mail"));
    }

    // The restore before it has put the copies there.
    void begin(const Workspace& workspace) override {
        for (const char* name : {live, lost})
            workspace.copy(workspace.stored(name), copy_of(workspace, name));
    }

    bool operate(Trial& trial) override {
        return Restore::operate(trial) && is_recovered(trial.server, live) &&
               is_recovered(trial.server, lost);
    }

    // Recovered is what the log says so of, and nothing else; what is not is as it was with its
    // copy waiting, or in place with the content of its copy.
    void judge(Trial& trial, bool) override {
        const Workspace& server = trial.server;
        for (const char* name : {live, lost}) {
            std::string about = std::string(" (") + name + ")";
            std::string found = content_of(server.data(name));
            bool waiting = fs::exists(copy_of(server, name));
            bool offline = server.is_offline(name);
            std::string told = "ROLLFORWARD: NOT recovered [" + server.data(name) + "]: it ";
            // What a copy that failed has left: half a database stays offline.
            bool broken = offline && Trial::logged(told + "could not be put in place; its place "
                                                          "holds a part and stays offline");
            trial.expect(!offline || broken ||
                             Trial::logged(told + "is in place, but could not be brought online"),
                         "offline without a word" + about);
            std::string stored = content_of(server.stored(name));
            if (is_recovered(server, name)) {
                trial.expect(found == m_expected[name], "said to be recovered, and is not" + about);
                trial.expect((!waiting || trial.allows(leaves_copy)) && !offline,
                             "recovered, but waiting or offline" + about);
            } else if (waiting) {
                std::string copy = content_of(copy_of(server, name));
                trial.expect(copy == stored || copy == m_expected[name],
                             "its copy is not whole" + about);
                // It may have been put in place just before the operation broke off.
                trial.expect(bytes_of(server.data(name)) == m_former[name] || found == copy ||
                                 broken,
                             "not as it was" + about);
            } else {
                trial.expect(found == stored || found == m_expected[name], "lost" + about);
                trial.expect(Trial::logged(": it is in place"), "in place without a word" + about);
            }
        }
    }

  private:
    static constexpr const char* live = "names.nsf";
    static constexpr const char* lost = "mail/user1.nsf";

    std::vector<std::string> control_variables(const Workspace& server) const override {
        return {"DATABASE=QRTLN:" + server.data(live), "DATABASE=QRTLN:" + server.data(lost),
                "RECOVERY=YES", "ROLLFORWARD=20361231235959"};
    }

    static bool is_recovered(const Workspace& workspace, const char* name) {
        return Trial::logged("ROLLFORWARD: recovered [" + workspace.data(name) + "]");
    }

    std::map<std::string, std::string> m_expected; // contents, by name
    std::map<std::string, std::string> m_former;   // bytes, where there was one
};

template <typename Kind, typename... Arguments>
std::unique_ptr<Scenario> made(Arguments... arguments) {
    return std::make_unique<Kind>(arguments...);
}

} // namespace

const std::map<std::string, std::unique_ptr<Scenario> (*)()> scenarios = {
    {"full", [] { return made<Backup>(DB_LEVEL_FULL); }},
    {"incremental", [] { return made<Backup>(DB_LEVEL_INCR); }},
    {"differential", [] { return made<Backup>(DB_LEVEL_DIFF); }},
    {"activation", [] { return made<Activation>(); }},
    {"deleted", [] { return made<Documents>(false); }},
    {"changed", [] { return made<Documents>(true); }},
    {"recovery", [] { return made<Recovery>(); }}};

} // namespace qrtln::torture
