// Backups.
#include "tests/torture/trial.h"

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

} // namespace

std::unique_ptr<Scenario> backup_scenario(DB_OPERATION_LEVEL level) {
    return std::make_unique<Backup>(level);
}

} // namespace qrtln::torture
