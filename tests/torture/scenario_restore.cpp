// A restore with activation: one database that is lost, and one that is there and newer.
#include "tests/torture/calls.h"
#include "tests/torture/content.h"
#include "tests/torture/module_calls.h"
#include "tests/torture/scenarios.h"

#include <cstring>

namespace fs = std::filesystem;

namespace {

constexpr const char* kLost = "mail/user1.nsf";
// Not logged: bringing it online changes nothing in it, so that its bytes can be compared.
constexpr const char* kLive = "plain.nsf";

class Activation : public Scenario {
  public:
    const char* name() const override { return "activation"; }

    void prepare(const Workspace& workspace) override {
        workspace.simulate("create " + workspace.server() + " plain.nsf --unlogged --notes 5");
        workspace.store(kLost);
        workspace.store(kLive);
        workspace.simulate("put " + workspace.server() + " plain.nsf --text newer");
        fs::remove(workspace.data(kLost));
        m_newer = bytesOf(workspace.data(kLive));
        if (m_newer == bytesOf(workspace.stored(kLive))) {
            throw std::runtime_error("the live database is not newer");
        }
    }

    bool operate(Trial& trial) override {
        const bool opened = trial.succeeded(trial.module.open(
            trial.server, DB_TYPE_RST, DB_LEVEL_FULL, {"DATABASE=NOTES", "ACTIVATE=YES"}));
        bool done = opened;
        for (const char* name : {kLost, kLive}) {
            done = opened && restoreDatabase(trial, name) && done;
        }
        return trial.close(done) && done;
    }

    void judge(Trial& trial, bool done) override {
        for (const char* name : {kLost, kLive}) {
            const std::string stored = bytesOf(trial.server.stored(name));
            const std::string copy = bytesOf(trial.server.folder.file(std::string("tmp/") + name));
            const std::string live = bytesOf(trial.server.data(name));
            const std::string former = name == kLive ? m_newer : "";
            const std::string about = std::string(" (") + name + ")";
            trial.expect(copy.empty() || copy == stored, "a part of a copy is left" + about);
            // A copy over it that failed leaves it offline, with what the copy got to, and the
            // restored copy for the next try. Where there was none, there is none.
            const bool broken = isModuleCall(trial.fault.call, ModuleCalls::files) && !done &&
                                trial.server.isOffline(name) && copy == stored;
            trial.expect(live == former || live == stored || broken,
                         "the live database is half" + about);
            // A host has the database in its store: what it never wrote need not be here.
            trial.expect(!done || (live == stored && (copy.empty() || trial.allows(kLeavesCopy))),
                         "not restored" + about);
            trial.expect(!trial.server.isOffline(name) || broken ||
                             trial.fault.call == "NSFBringDatabaseOnline" || live == stored,
                         "offline, and not replaced" + about);
            trial.expect(!done || !trial.server.isOffline(name), "offline" + about);
        }
    }

    // Announces, writes and finishes a database as the host that has it in its store.
    static bool restoreDatabase(Trial& trial, const std::string& name) {
        Module& module = trial.module;
        const std::string path = trial.server.data(name);
        char szItem[1028] = "";
        path.copy(szItem, path.rfind('/'));
        if (!trial.succeeded(module.SetItem(DB_ITEM_TYPE_DIRECTORY, szItem))) {
            return false;
        }
        std::memset(szItem, 0, sizeof szItem);
        path.copy(szItem, sizeof szItem - 1);
        if (!trial.succeeded(module.SetItem(DB_ITEM_TYPE_FILE, szItem))) {
            return false;
        }
        trial.server.copy(trial.server.stored(name), szItem);
        return trial.succeeded(module.ItemFinishStatus(DB_ITEM_SUCCESS));
    }

  private:
    std::string m_newer;
};

} // namespace

bool restoreDatabase(Trial& trial, const std::string& name) {
    return Activation::restoreDatabase(trial, name);
}

std::unique_ptr<Scenario> restoreWithActivation() {
    return std::make_unique<Activation>();
}
