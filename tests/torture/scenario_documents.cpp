// The restore of deleted and of changed documents.
#include "tests/torture/content.h"
#include "tests/torture/scenarios.h"

#include <sstream>

namespace fs = std::filesystem;

namespace {

constexpr const char* kDatabase = "mail/user1.nsf";

// Writes a note and returns its id.
std::string put(const Workspace& workspace, const std::string& options) {
    const std::string output = workspace.folder.file("put");
    workspace.simulate("put " + workspace.server() + " " + kDatabase + " " + options + " > " +
                       output + " #");
    std::string id = workspace.folder.read("put");
    id.erase(id.find_last_not_of('\n') + 1);
    return id;
}

// The lines of a database's content about one note, unread marks apart.
std::string noteIn(const std::string& content, const std::string& id) {
    std::istringstream lines(content);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(id + " ")) {
            return line;
        }
    }
    return "";
}

bool isUnread(const std::string& content, const std::string& id) {
    std::istringstream lines(content);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("unread ") && line.ends_with(" " + id)) {
            return true;
        }
    }
    return false;
}

class Documents : public Scenario {
  public:
    bool operate(Trial& trial) override {
        const bool opened = trial.succeeded(trial.module.open(
            trial.server, DB_TYPE_RST, DB_LEVEL_FULL,
            {"DATABASE=NOTES", std::string("INFO=-o \"") + kind() + "=202001010000\""}));
        const bool done = opened && restoreDatabase(trial, kDatabase);
        return trial.close(done) && done;
    }

    void judge(Trial& trial, bool done) override {
        const std::string live = contentOf(trial.server.data(kDatabase));
        const std::string stored = contentOf(trial.server.stored(kDatabase));
        trial.expect(!live.starts_with("unsound"), "the live database is " + live.substr(0, 60));
        trial.expect(noteIn(live, m_untouched) == noteIn(m_before, m_untouched),
                     "another document changed");
        for (const std::string& id : m_ids) {
            const std::string note = noteIn(live, id);
            const bool back = note == noteIn(stored, id);
            trial.expect(back || note == noteIn(m_before, id) ||
                             (note.empty() && mayBeLost(trial.fault)),
                         "document " + id + " is neither as it was nor restored");
            trial.expect(!done || back || !trial.mustBeComplete(),
                         "counts as done, but document " + id + " is not back");
        }
        judgeMarks(trial, done, live);
        const std::string copy = trial.server.folder.file(std::string("tmp/") + kDatabase);
        trial.expect(!fs::exists(copy) || sameContent(copy, trial.server.stored(kDatabase)),
                     "the restored copy is not whole");
    }

  protected:
    virtual const char* kind() const = 0;
    // Whether a fault may cost the live database a document that the store has.
    virtual bool mayBeLost(const Fault&) const { return false; }
    virtual void judgeMarks(Trial&, bool, const std::string&) const {}

    void noteBefore(const Workspace& workspace) { m_before = contentOf(workspace.data(kDatabase)); }

    std::vector<std::string> m_ids; // of the documents to restore
    std::string m_untouched;        // the id of another
    std::string m_before;           // content of the live database
};

class Deleted : public Documents {
  public:
    const char* name() const override { return "deleted"; }

    void prepare(const Workspace& workspace) override {
        m_ids = {put(workspace, "--text one"), put(workspace, "--text two")};
        workspace.store(kDatabase);
        m_untouched = put(workspace, "--text other");
        for (const std::string& id : m_ids) {
            workspace.simulate("delete " + workspace.server() + " " + kDatabase + " " + id);
        }
        noteBefore(workspace);
    }

  protected:
    const char* kind() const override { return "deld"; }

    void judgeMarks(Trial& trial, bool done, const std::string& live) const override {
        // That a document does not show as new is no failure of the restore, but is said.
        const bool told = trial.said("setNotesAsUnread(): Could not") ||
                          trial.said("setNotesAsUnread(): Insert note");
        for (const std::string& id : m_ids) {
            const bool copied = trial.said("RestoreDeletedDocuments(): Copying note (" + id + ")");
            trial.expect(!done || told || !copied || !trial.mustBeComplete() || isUnread(live, id),
                         "document " + id + " came back read");
        }
    }
};

class Changed : public Documents {
  public:
    const char* name() const override { return "changed"; }

    void prepare(const Workspace& workspace) override {
        m_ids = {put(workspace, "--text one"), put(workspace, "--text two")};
        workspace.store(kDatabase);
        m_untouched = put(workspace, "--text other");
        for (const std::string& id : m_ids) {
            put(workspace, "--text changed --id " + id);
        }
        noteBefore(workspace);
    }

    void begin(const Workspace& workspace) override {
        std::string list;
        for (const std::string& id : m_ids) {
            list += id + "\n";
        }
        workspace.folder.write("server/data/noteids_list.txt", list);
    }

    std::vector<Scenario*> repair(const Fault& fault) override {
        // A document whose copy failed is gone from the live database: it counts as deleted now.
        if (mayBeLost(fault)) {
            m_deleted = std::make_unique<AfterFailure>(*this);
            return {m_deleted.get(), this};
        }
        return {this};
    }

  protected:
    const char* kind() const override { return "chgd"; }
    // Without the identity of a database the copy fails, too: the result of that call is not looked
    // at, by contract.
    bool mayBeLost(const Fault& fault) const override {
        return fault.call == "NSFDbCopyNote" || fault.call == "NSFDbIDGet";
    }

  private:
    // A restore of deleted documents for what a failed restore of changed ones has cost. It is
    // judged by the one that follows.
    class AfterFailure : public Deleted {
      public:
        explicit AfterFailure(const Changed& failed) {
            m_ids = {};
            m_untouched = failed.m_untouched;
            m_before = failed.m_before;
        }
    };

    std::unique_ptr<AfterFailure> m_deleted;
};

} // namespace

std::unique_ptr<Scenario> restoreOfDeletedDocuments() {
    return std::make_unique<Deleted>();
}

std::unique_ptr<Scenario> restoreOfChangedDocuments() {
    return std::make_unique<Changed>();
}
