// Full, incremental and differential backup.
#include "tests/torture/calls.h"
#include "tests/torture/content.h"
#include "tests/torture/scenarios.h"

#include <set>
#include <sstream>

namespace fs = std::filesystem;

namespace {

std::set<std::string> linesOf(const std::string& text) {
    std::set<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.insert(line);
    }
    return lines;
}

// The database that its users change while it is copied, and how: set before the module is loaded.
std::string s_writeDuringCopy;

void traceAndWrite(const char* text) {
    Module::s_traces.emplace_back(text);
    if (!s_writeDuringCopy.empty() &&
        Module::s_traces.back().starts_with("PrepareOpenDbForBackup(): File size == ")) {
        const std::string command = s_writeDuringCopy;
        s_writeDuringCopy.clear();
        if (std::system(command.c_str()) != 0) {
            throw std::runtime_error("failed: " + command);
        }
    }
}

class Backup : public Scenario {
  public:
    explicit Backup(DB_OPERATION_LEVEL level) : m_level(level) {}
    const char* name() const override {
        return m_level == DB_LEVEL_FULL   ? "full"
               : m_level == DB_LEVEL_INCR ? "incremental"
                                          : "differential";
    }

    void prepare(const Workspace& workspace) override {
        // A full backup has been made, so that there is an index; then two databases became other
        // instances: the index that this backup writes differs.
        for (const char* name : {"names.nsf", "mail/user1.nsf", "small.nsf"}) {
            workspace.markSaved(name);
        }
        Backup former(DB_LEVEL_FULL);
        const RunResult result = runOnce(workspace, former, {});
        if (!result.done || workspace.index().empty()) {
            throw std::runtime_error("the backup that makes the index failed");
        }
        for (const char* name : {"names.nsf", "mail/user1.nsf"}) {
            workspace.simulate("compact " + workspace.server() + " " + name);
            workspace.markSaved(name);
        }
        workspace.simulate("create " + workspace.server() + " never.nsf --notes 2");
        // Found by a search of its own, after everything else.
        fs::create_directory(workspace.data("attachments"));
        std::ofstream(workspace.data("attachments/one.nlo")) << "attachment";
        // Each change nearly fills an extent: some are ready to be archived.
        const std::string text(9000, 'x');
        for (int i = 0; i < 3; ++i) {
            workspace.simulate("put " + workspace.server() + " names.nsf --count 5 --text " + text);
        }
        if (m_level == DB_LEVEL_DIFF) {
            // Large enough for the server to hear how far its copy has got.
            workspace.simulate("create " + workspace.server() + " large.nsf --unlogged --notes 2");
            workspace.simulate("put " + workspace.server() + " large.nsf --count 35 --text " +
                               std::string(100000, 'x'));
            if (fs::file_size(workspace.data("large.nsf")) < 101 * 32768) {
                throw std::runtime_error("large.nsf is not large");
            }
        }
        m_former = workspace.index();
    }

    bool operate(Trial& trial) override {
        Module& module = trial.module;
        m_saved.clear();
        s_writeDuringCopy = QRTLN_DOMINO_SIM " put " + trial.server.server() +
                            " names.nsf --count 3 --text changed > /dev/null";
        module.SetTrace(traceAndWrite);
        bool done = trial.succeeded(
            module.open(trial.server, DB_TYPE_BCK, m_level,
                        {"DATABASE=NOTES", "SNC_TIME=20200101000000"})); // for a differential one
        while (done || !m_saved.empty()) {
            const std::string item = module.get();
            if (item.empty()) {
                done = trial.succeeded(module.code) && done;
                break;
            }
            done = save(trial, item) && done;
        }
        // Items that the module skips never reach its host.
        for (const char* skipped : {"cannot be read", "could not be read to its end", "got error ",
                                    "NSFDbGetModifiedNoteTable() returned error ",
                                    "has a name that is not valid for the server"}) {
            done = done && !Trial::logged(skipped);
        }
        if (m_level != DB_LEVEL_FULL) {
            done = !Trial::logged("Checking if file needs to be backed up failure") && done;
        }
        std::ofstream(trial.server.folder.file("items")) << joined();
        m_stored = done;
        return trial.close(done) && done;
    }

    void learn(const Workspace& workspace) override {
        m_all = workspace.folder.read("items");
        m_later = workspace.index();
        m_logs = workspace.calls("NSFDoneArchivingLog(");
        // A differential backup has no logs.
        if (m_later == m_former || (m_logs == 0) != (m_level == DB_LEVEL_DIFF) ||
            linesOf(m_all).count(workspace.data("names.nsf")) == 0) {
            throw std::runtime_error("a backup without a fault changes no index or marks no log");
        }
    }

    void judge(Trial& trial, bool done) override {
        const Workspace& server = trial.server;
        trial.expect(server.filesBelow("tmp").empty() || trial.allows(kLeavesCopy),
                     "a copy is left under TMP_DIR");
        // A close that fails at the end of archiving leaves the working copy of the index, by
        // contract.
        const auto files = server.filesBelow("run");
        const bool mayHaveMore = trial.fault.call.empty() || (m_stored && !done);
        trial.expect(files.size() == 1 ||
                         ((mayHaveMore || trial.allows(kLeavesCopy)) && files.size() == 2),
                     std::to_string(files.size()) + " files instead of the index alone");
        if (trial.fault.call.empty()) {
            judgeWithoutFault(trial);
            return;
        }
        if (m_stored && trial.mustBeComplete()) {
            trial.expect(joined() == m_all || (lacksLogs(trial.fault) && joined() == withoutLogs()),
                         "counts as done with other items than without a fault");
        }
        judgeIndex(trial, done);
        // A log that was marked is gone from the server.
        for (const std::string& line : server.journal()) {
            trial.expect(m_stored || !line.starts_with("NSFDoneArchivingLog("),
                         "a log was marked after a failure");
        }
    }

    bool mayNeedRetry(const Fault& fault) const override {
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
            const std::size_t logs = Module::s_logs.size();
            const std::string file = module.prepare(item);
            saved = trial.succeeded(module.code) && fs::exists(file);
            if (!saved) {
                trial.expect(trial.server.filesBelow("tmp").empty() || trial.allows(kLeavesCopy),
                             "a failed preparation leaves its copy");
            } else {
                // Hosts do not count such a copy as saved.
                saved = !Trial::logged("NSFBackupEndApplyChangeInfo LN C API call failed", logs);
                trial.expect(!saved || !item.ends_with(".nsf") || sameContent(file, item),
                             "the copy of " + item + " is not what it was");
            }
        }
        return trial.succeeded(module.ItemFinishStatus(saved ? DB_ITEM_SUCCESS : DB_ITEM_FAIL)) &&
               saved;
    }

    // After a fault everything comes again, but for logs that are stored and, in an incremental
    // backup, databases that were prepared: those a host writes down as owed.
    void judgeWithoutFault(Trial& trial) const {
        for (const std::string& item : linesOf(m_all)) {
            trial.expect(m_level == DB_LEVEL_INCR || item.ends_with(".TXN") ||
                             m_saved.count(item) > 0,
                         "does not come again: " + item);
        }
    }

    void judgeIndex(Trial& trial, bool done) const {
        const std::string index = trial.server.index();
        if (!m_stored) {
            trial.expect(index == m_former, "the index changed although the backup failed");
            return;
        }
        if (!done) {
            trial.expect(index == m_former || index == m_later, "the index is not whole");
            return;
        }
        // An entry that could not be asked for stays as it was: the next backup finds it outdated.
        const std::set<std::string> former = linesOf(m_former);
        const std::set<std::string> later = linesOf(m_later);
        for (const std::string& line : linesOf(index)) {
            // Where the server does not tell whether a database was ever backed up, it gets one.
            const bool untold = trial.fault.call == "NSFIsNewBackupNeeded" &&
                                line.starts_with(trial.server.data("never.nsf="));
            trial.expect(untold || former.count(line) + later.count(line) > 0,
                         "the index has a line of its own: " + line);
        }
        for (const std::string& line : former) {
            const std::string name = line.substr(0, line.find('=') + 1);
            trial.expect(index.find("\n" + name) != std::string::npos,
                         "the index lost the entry " + line);
        }
    }

    // A backup of everything can do without logs, where the server does not tell how it logs: it
    // keeps them.
    bool lacksLogs(const Fault& fault) const {
        return m_level == DB_LEVEL_FULL && fault.call == "NSFGetTransLogStyle";
    }

    // The items of a backup without a fault, without those logs that the host did not get.
    std::string withoutLogs() const {
        std::string text;
        for (const std::string& item : linesOf(m_all)) {
            const bool log = item.ends_with(".TXN") || item.ends_with("nlogctrl.lfh");
            text += log && m_saved.count(item) == 0 ? "" : item + "\n";
        }
        return text;
    }

    std::string joined() const {
        std::string text;
        for (const std::string& item : m_saved) {
            text += item + "\n";
        }
        return text;
    }

    DB_OPERATION_LEVEL m_level;
    std::string m_former; // the index before
    std::string m_later;  // and after a backup without a fault
    std::string m_all;    // the items of such a backup
    long m_logs = 0;
    std::set<std::string> m_saved;
    bool m_stored = false; // the host had everything and closed with STATUS=0
};

} // namespace

std::unique_ptr<Scenario> fullBackup() {
    return std::make_unique<Backup>(DB_LEVEL_FULL);
}

std::unique_ptr<Scenario> incrementalBackup() {
    return std::make_unique<Backup>(DB_LEVEL_INCR);
}

std::unique_ptr<Scenario> differentialBackup() {
    return std::make_unique<Backup>(DB_LEVEL_DIFF);
}
