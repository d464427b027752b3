// Restores with activation, of deleted and of changed documents, and with a recovery.
#include "tests/torture/trial.h"

#include <cstring>
#include <sstream>

namespace qrtln::torture {

namespace {

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
        m_newer = read_file(workspace.data(live));
        if (m_newer == read_file(workspace.stored(live)))
            throw std::runtime_error("the live database is not newer");
    }

    void judge(Trial& trial, bool done) override {
        for (const char* name : {lost, live}) {
            std::string stored = read_file(trial.server.stored(name));
            std::string copy = read_file(copy_of(trial.server, name));
            std::string found = read_file(trial.server.data(name));
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
        m_former[live] = read_file(workspace.data(live));
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
                trial.expect(read_file(server.data(name)) == m_former[name] || found == copy ||
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

} // namespace

std::unique_ptr<Scenario> activation_scenario() {
    return std::make_unique<Activation>();
}
std::unique_ptr<Scenario> documents_scenario(bool changed) {
    return std::make_unique<Documents>(changed);
}
std::unique_ptr<Scenario> recovery_scenario() {
    return std::make_unique<Recovery>();
}

} // namespace qrtln::torture
