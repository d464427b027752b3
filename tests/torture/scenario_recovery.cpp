// A recovery of restored copies: one whose original is there, and one whose original is lost.
#include "tests/torture/calls.h"
#include "tests/torture/content.h"
#include "tests/torture/scenarios.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kLive = "names.nsf";
constexpr const char* kLost = "mail/user1.nsf";

class Recovery : public Scenario {
  public:
    const char* name() const override { return "recovery"; }

    void prepare(const Workspace& workspace) override {
        for (const char* name : {kLive, kLost}) {
            workspace.markSaved(name);
            workspace.store(name);
            workspace.simulate("put " + workspace.server() + " " + name + " --text later");
            m_expected.push_back(contentOf(workspace.data(name)));
        }
        m_live = bytesOf(workspace.data(kLive));
        fs::remove_all(workspace.data("mail"));
    }

    // The restore before it has put the copies there.
    void begin(const Workspace& workspace) override {
        for (const char* name : {kLive, kLost}) {
            workspace.copy(workspace.stored(name), copyOf(workspace, name));
        }
    }

    bool operate(Trial& trial) override {
        const Workspace& server = trial.server;
        const bool done = trial.succeeded(trial.module.open(
            server, DB_TYPE_RST, DB_LEVEL_FULL,
            {"DATABASE=QRTLN:" + server.data(kLive), "DATABASE=QRTLN:" + server.data(kLost),
             "RECOVERY=YES", "ROLLFORWARD=20361231235959"}));
        const bool closed = trial.close(done);
        return done && closed && isRecovered(server, kLive) && isRecovered(server, kLost);
    }

    void judge(Trial& trial, bool) override {
        judgeDatabase(trial, kLive, m_expected[0], m_live);
        judgeDatabase(trial, kLost, m_expected[1], "");
    }

  private:
    static std::string copyOf(const Workspace& workspace, const std::string& name) {
        return workspace.folder.file("tmp/" + name);
    }
    static bool isRecovered(const Workspace& workspace, const std::string& name) {
        return Trial::logged("ROLLFORWARD: recovered [" + workspace.data(name) + "]");
    }

    // Recovered is what the log says so of, and nothing else; what is not is as it was with its
    // copy waiting, or in place with the content of its copy.
    static void judgeDatabase(Trial& trial, const std::string& name, const std::string& expected,
                              const std::string& former) {
        const Workspace& server = trial.server;
        const std::string about = " (" + name + ")";
        const std::string live = contentOf(server.data(name));
        const bool waiting = fs::exists(copyOf(server, name));
        const bool offline = server.isOffline(name);
        const std::string told = "ROLLFORWARD: NOT recovered [" + server.data(name) + "]: it ";
        // What a copy that failed has left: half a database stays offline.
        const bool broken = offline && Trial::logged(told + "could not be put in place; its place "
                                                            "holds a part and stays offline");
        trial.expect(!offline || broken ||
                         Trial::logged(told + "is in place, but could not be brought online"),
                     "offline without a word" + about);
        if (isRecovered(server, name)) {
            trial.expect(live == expected, "said to be recovered, and is not" + about);
            trial.expect((!waiting || trial.allows(kLeavesCopy)) && !offline,
                         "recovered, but waiting or offline" + about);
            return;
        }
        const std::string stored = contentOf(server.stored(name));
        if (waiting) {
            const std::string copy = contentOf(copyOf(server, name));
            trial.expect(copy == stored || copy == expected, "its copy is not whole" + about);
            // It may have been put in place just before the operation broke off.
            trial.expect(bytesOf(server.data(name)) == former || live == copy || broken,
                         "not as it was" + about);
        } else {
            trial.expect(live == stored || live == expected, "lost" + about);
            trial.expect(Trial::logged(": it is in place"), "in place without a word" + about);
        }
    }

    std::vector<std::string> m_expected;
    std::string m_live;
};

} // namespace

std::unique_ptr<Scenario> recovery() {
    return std::make_unique<Recovery>();
}
