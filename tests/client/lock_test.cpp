// Who has a store or a server locked: shown, named, waited for, taken over from what was killed.
#include "client/base/lock_reach.h"
#include "client/base/process_note.h"
#include "tests/client/simulated_server.h"

namespace qrtln::test {
namespace {

class Locks : public OverTheSimulator {
  protected:
    // A backup that has both locks until go_on().
    std::unique_ptr<Program> start_holder() {
        fs::remove(m_go);
        auto holder = std::make_unique<Program>(client_words({"backup", "--level", "copy"}),
                                                holder_environment());
        until(
            [&] { return lock("store")["state"] == "held" && lock("server")["state"] == "held"; });
        return holder;
    }
    void go_on() const { write_file(m_go, ""); }
    // A lock as `qrtln lock` shows it.
    json lock(const std::string& name) const {
        const Outcome shown = on_store({"lock", "--json", "--notes-ini", m_server + "/notes.ini"});
        const json locks = shown.exit_code == 0 ? json::parse(shown.output)["locks"] : json();
        for (const json& lock : locks)
            if (lock["lock"] == name)
                return lock;
        return {{"state", ""}};
    }
    static void until(const std::function<bool()>& is) {
        while (!is())
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    // A command that waits by now.
    std::unique_ptr<Program> start_waiting(Words words) const {
        words.insert(words.end(), {"--lock-wait", "1h"});
        auto waiting = std::make_unique<Program>(client_words(words), holder_environment());
        until([&] { return !waiting->printed().errors.empty() || waiting->ended(); });
        EXPECT_THAT(waiting->printed().errors, HasSubstr("waiting up to 1 h 00 min: "));
        return waiting;
    }
    const std::string m_go = m_scratch / "go";

  private:
    Words client_words(Words words) const {
        words = on_server(words);
        words.insert(words.begin(), QRTLN_EXECUTABLE);
        return words;
    }
    Environment holder_environment() const {
        Environment environment =
            hook("prepare:*/names.nsf) while [ ! -e " + m_go + " ]; do sleep 0.01; done");
        environment["Notes_ExecDirectory"] = QRTLN_SIMULATOR_DIRECTORY;
        return environment;
    }
};

TEST_F(Locks, AreShownAndNamedAndWaitedForAndEndWithTheirProcess) {
    const std::string set = backup(0)["set"];
    EXPECT_EQ(lock("store"), json({{"lock", "store"}, {"state", "free"}}));
    auto holder = start_holder();
    const std::string process = "process " + std::to_string(holder->pid()) + " (";
    for (const char* name : {"store", "server"}) {
        EXPECT_EQ(lock(name)["process"], holder->pid());
        EXPECT_THAT(lock(name)["command_line"], HasSubstr("backup --level copy"));
        EXPECT_EQ(lock(name)["host"], host_name());
    }
    run(11, {"backup"}, "is locked by " + process);
    EXPECT_THAT(m_errors, AllOf(HasSubstr("--level copy"), HasSubstr("since 20")));
    run(11, {"recover", "mail", "--into", m_scratch / "to", "--lock-wait", "1s"},
        "waiting up to 1 s: the store " + m_store + " is locked by " + process);
    run(2, {"backup", "--lock-wait", "soon"}, "s, m, h, d or w");
    const std::string here = m_store;
    m_store = m_scratch / "other"; // the server is locked all the same, and no store is left
    run(11, {"backup", "--level", "copy", "--lock-wait", "1s"}, "backs up databases");
    EXPECT_FALSE(fs::exists(m_store));
    m_store = here;

    auto interrupted = start_waiting({"prove"});
    ::kill(interrupted->pid(), SIGTERM);
    EXPECT_EQ(interrupted->wait().exit_code, 143);
    auto waiting = start_waiting({"backup", "--level", "copy"});
    domino("create", "mail/meanwhile.nsf"); // not what it saw before it waited counts
    go_on();
    EXPECT_EQ(holder->wait().exit_code, 0);
    const Outcome waited = waiting->wait();
    EXPECT_EQ(waited.exit_code, 0) << waited.errors;
    EXPECT_THAT(databases(json::parse(waited.output)["set"]), Contains("mail/meanwhile.nsf"));

    holder = start_holder();
    const pid_t killed = holder->pid();
    ::kill(killed, SIGKILL);
    holder->wait();
    go_on();
    until([&] { return lock("store")["state"] != "held"; }); // the module ends its operation
    EXPECT_EQ(lock("store")["state"], "left");
    EXPECT_EQ(lock("store")["process"], killed);
    backup(0, "copy", {},
           "taken over from process " + std::to_string(killed) + " on " + host_name() + " (");
    EXPECT_EQ(lock("store")["state"], "free");
    backup(0, "copy");
    EXPECT_THAT(m_errors, Not(HasSubstr("taken over")));
}

TEST_F(Locks, OfReadersKeepTheirSetsAndNotesOfOthersAreNotTakenForTheirs) {
    const Words sets = {backup(0)["set"], backup(0)["set"]};
    auto reader = open_directory_store(m_store, StoreAccess::read);
    reader->hold_sets({sets[0]});
    EXPECT_EQ(lock("reader")["process"], ::getpid());
    EXPECT_EQ(lock("reader")["sets"], json({sets[0]}));
    const Outcome refused = on_store({"forget", sets[0], "--lock-wait", "1s"});
    EXPECT_EQ(refused.exit_code, 11);
    EXPECT_THAT(refused.errors, HasSubstr("process " + std::to_string(::getpid()) + " ("));
    reader.reset();
    EXPECT_EQ(lock("reader")["state"], "");

    ProcessNote elsewhere = own_process();
    elsewhere.host = "elsewhere";
    elsewhere.boot = "another";
    ProcessNote before = own_process(); // of this host, before it was started anew
    before.boot = "another";
    ProcessNote reused = own_process(); // its number is another process's now
    ++reused.start;
    const std::tuple<std::string, const char*, const char*> notes[] = {
        {serialize(elsewhere), "noted", "on elsewhere ("},
        {serialize(before), "left", "taken over"},
        {serialize(reused), "left", "taken over"},
        {std::to_string(::getpid()) + "\n", "free", ""}, // of an earlier release
        {serialize(before).substr(0, 60), "free", ""},
        {"1\n{\"host\": 1}", "free", ""},
        {std::string("\xFF\0[[[[", 6), "free", ""},
    };
    for (const auto& [note, state, says] : notes) {
        write_file(m_store + "/lock", note);
        EXPECT_EQ(lock("store")["state"], state) << note;
        backup(0, "copy", {"names.nsf"}, says);
        if (*says == '\0')
            EXPECT_THAT(m_errors, Not(HasSubstr("taken over"))) << note;
    }
    EXPECT_EQ(verify(), 0);
}

TEST(LockReach, IsThatOfTheFileSystem) {
    const std::tuple<const char*, const char*, bool> systems[] = {
        {"ext4", "rw", true},
        {"nfs4", "rw,vers=4.2,local_lock=none,addr=1", true},
        {"nfs", "rw,nolock,local_lock=all", false},
        {"nfs", "rw,vers=3,local_lock=flock", false},
        {"cifs", "rw", true},
        {"cifs", "rw,nobrl", false},
        {"fuse.sshfs", "rw", false},
        {"fuseblk", "rw", true},
        {"9p", "rw", false},
    };
    for (const auto& [type, options, reach] : systems)
        EXPECT_EQ(locks_reach_every_host(type, options), reach) << type << options;
    const int folder = ::open("/proc", O_RDONLY);
    EXPECT_TRUE(locks_reach_every_host(folder));
    ::close(folder);
    EXPECT_FALSE(locks_reach_every_host(-1));
}

} // namespace
} // namespace qrtln::test
