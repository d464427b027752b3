// Stores that lie elsewhere: rclone's places in a folder of this machine, and encrypted in one.
#include "client/base/process_note.h"
#include "tests/client/simulated_server.h"

namespace qrtln::test {
namespace {

class Elsewhere : public OverTheSimulator {
  protected:
    Elsewhere() {
        m_store = "rclone::local:" + m_there;
        ::setenv("RCLONE_CONFIG", "/dev/null", 1);
        use_state("state");
    }
    ~Elsewhere() override {
        ::unsetenv("QRTLN_STATE");
        ::unsetenv("RCLONE_CONFIG");
    }
    void use_state(const std::string& name) const {
        ::setenv("QRTLN_STATE", (m_scratch / name).c_str(), 1);
    }
    // The folder of the store on this machine.
    std::string here() const {
        for (const auto& entry : fs::directory_iterator(m_scratch / "state"))
            return entry.path();
        return "";
    }
    Words there(const std::string& folder) const {
        Words names;
        if (fs::exists(m_there + "/" + folder))
            for (const auto& entry : fs::recursive_directory_iterator(m_there + "/" + folder))
                if (entry.is_regular_file())
                    names.push_back(entry.path().filename());
        return names;
    }
    // Loses this machine: the server's data, and what its stores have here.
    void lose_machine() {
        use_state("state of the new machine");
        fs::rename(m_data, m_scratch / "lost");
        fs::create_directory(m_data);
    }
    // Writes down that another machine writes to the store.
    void claim_by(const std::string& host) const {
        ProcessNote note = own_process();
        note.host = host;
        note.boot = "another boot";
        const json claim = {
            {"name", "theirs"}, {"process", serialize(note)}, {"renewed", 1795000000}};
        write_file(m_there + "/claim.json", claim.dump());
    }

    std::string m_there = m_scratch / "there";
};

TEST_F(Elsewhere, AServerComesBackFromThereAlone) {
    domino("create", "mail/unlogged.nsf --unlogged");
    write_file(m_data + "/note.txt", std::string(100000, 'n'));
    const std::string first = backup(0)["set"];
    EXPECT_THAT(there("sets"), testing::IsSupersetOf({first + ".json", first + ".index"}));
    // Nothing but what is small, or has to be here, is here.
    for (const auto& entry : fs::recursive_directory_iterator(here()))
        EXPECT_FALSE(entry.path().extension() == ".pack" || entry.path().extension() == ".zst");
    EXPECT_THAT(there(""), Not(Contains("claim.json")));
    put("mail/user1.nsf");
    fill_extents(2);
    backup(0, "incr");
    put("mail/user2.nsf");
    backup(0, "diff");
    EXPECT_EQ(verify(), 0);
    const std::string saved = digest("mail/user1.nsf");
    lose_machine();
    EXPECT_THAT(list(), SizeIs(3));
    EXPECT_EQ(verify(), 0);
    run(0, {"recover", "--all"});
    // The index went with the machine: what it would select is not known.
    run(1, {"backup", "--level", "incr"}, "it is new here");
    EXPECT_EQ(digest("mail/user1.nsf"), saved);
    EXPECT_EQ(read_file(m_data + "/note.txt"), std::string(100000, 'n'));
    backup(0);
    backup(0, "incr");
    EXPECT_EQ(on_store({"forget", "--keep-last", "1"}).exit_code, 0);
    EXPECT_THAT(list(), SizeIs(2));
    EXPECT_THAT(there("sets"), Not(Contains(first + ".json")));
    EXPECT_EQ(verify(), 0);
}

TEST_F(Elsewhere, OnAnEncryptedPlaceNothingIsReadable) {
    ::setenv("RCLONE_CONFIG_SECRET_TYPE", "crypt", 1);
    ::setenv("RCLONE_CONFIG_SECRET_REMOTE", (":local:" + m_there).c_str(), 1);
    ::setenv("RCLONE_CONFIG_SECRET_PASSWORD", "mGhJ5kOqSfpwGxGzHcP2jYMsIGJu1ug", 1);
    m_store = "rclone:secret:";
    backup(0);
    EXPECT_THAT(there(""), Not(Contains("store.json")));
    EXPECT_EQ(verify(), 0);
    const std::string to = m_scratch / "to";
    fs::create_directory(to);
    run(0, {"restore", "mail/user1.nsf", "--to", to});
}

TEST_F(Elsewhere, SetsAreCopiedThereOnceAndComeBack) {
    const std::string nearby = m_scratch / "nearby";
    const auto copy = [&](int exit_code, const std::string& from, const std::string& to) {
        const Outcome outcome = run_client({"copy", "--from", from, "--to", to, "--json"});
        EXPECT_EQ(outcome.exit_code, exit_code) << outcome.errors << outcome.output;
        return outcome.document();
    };
    const std::string far = std::exchange(m_store, nearby);
    write_file(m_data + "/note.txt", std::string(100000, 'n'));
    const std::string first = backup(0)["set"];
    put("mail/user1.nsf");
    backup(0);
    EXPECT_THAT(copy(0, nearby, far)["copied"], SizeIs(2));
    const auto there_now = snapshot(m_there);
    EXPECT_EQ(copy(0, nearby, far)["were_there"], 2);
    EXPECT_EQ(snapshot(m_there), there_now);
    EXPECT_EQ(copy(1, nearby, nearby).value("code", 0), 1);
    EXPECT_EQ(run_client({"forget", first, "--store", far}).exit_code, 0);
    EXPECT_EQ(copy(0, nearby, far)["forgotten_there"][0], first);
    // What is damaged does not get there; what got there before is whole.
    put("mail/user2.nsf");
    const std::string damaged = backup(0)["set"];
    flip(damaged, m_user2);
    EXPECT_THAT(copy(4, nearby, far)["left_out"][0], HasSubstr(damaged + ": the pack "));
    fs::remove_all(nearby);
    EXPECT_THAT(copy(0, far, nearby)["copied"], SizeIs(1));
    EXPECT_EQ(verify(), 0);
    for (const char* part : {"1/2", "2/2", "0%", "100%"})
        EXPECT_EQ(on_store({"verify", "--read-data-subset", part}).exit_code, 0);
    EXPECT_EQ(on_store({"verify", "--read-data-subset", "3/2"}).exit_code, 2);
    fs::remove(fs::directory_iterator(nearby + "/packs")->path());
    EXPECT_EQ(on_store({"verify", "--read-data-subset", "0%"}).exit_code, 4);
}

TEST_F(Elsewhere, WhatIsLostThereIsNamedAndStoredAgain) {
    write_file(m_data + "/note.txt", std::string(100000, 'n'));
    const std::string set = backup(0)["set"];
    fs::remove_all(m_there + "/objects");
    const fs::path pack = fs::directory_iterator(m_there + "/packs")->path();
    flip_a_bit(pack);
    EXPECT_EQ(verify(), 4);
    const std::string next = backup(0)["set"];
    EXPECT_EQ(on_store({"verify", next}).exit_code, 0);
    fs::remove(pack);
    const std::string last = backup(0)["set"];
    EXPECT_EQ(on_store({"verify", last}).exit_code, 0);
}

TEST_F(Elsewhere, OneWritesAtATime) {
    backup(0);
    claim_by("mail2");
    const auto before = snapshot(m_there);
    run(11, {"backup", "--level", "full"}, "on mail2");
    EXPECT_EQ(snapshot(m_there), before);
    EXPECT_EQ(verify(), 0);
    EXPECT_THAT(on_store({"lock"}).output, testing::ContainsRegex("claim +noted .*mail2"));
    backup(0, "full", {"--break-claim"}, "is taken over from");
    // A process of this machine that has ended is seen to have.
    claim_by(host_name());
    backup(0, "full", {}, "is taken over from");
}

TEST_F(Elsewhere, AnEngineThatFailsLeavesNoSetAndNothingThatCounts) {
    backup(0);
    const auto before = snapshot(m_there + "/sets");
    put("mail/user1.nsf");
    // It dies while the databases are read, or hangs.
    const auto gets = [](const std::string& signal) {
        return hook("prepared:*user2.nsf) pkill -" + signal +
                    " -P $(cut -d \" \" -f 4 /proc/$PPID/stat) rclone");
    };
    backup(15, "full", {}, "rclone has ended", gets("KILL"));
    backup(15, "full", {"--remote-patience", "5s"}, "rclone does not answer", gets("STOP"));
    EXPECT_EQ(snapshot(m_there + "/sets"), before);
    backup(0, "incr", {}, "is taken over from");
    EXPECT_EQ(verify(), 0);
    const std::string path = fmt::format("{}:{}", m_scratch / "empty", "/nonexistent");
    backup(15, "full", {}, "apt install rclone", {{"PATH", path}});
    m_store = "rclone:nobody:x";
    run(15, {"backup", "--level", "full"}, "didn't find section");
    m_store = "rclone:nobody";
    run(2, {"backup", "--level", "full"}, "names no remote");
    m_store = "rclone::local:" + m_scratch.path();
    const std::string key = m_scratch / "keys/0123456789abcdef.json"; // of one that lost store.json
    write_file(key, "key");
    run(10, {"backup", "--level", "full"}, "is not empty and is no store");
    EXPECT_EQ(read_file(key), "key");
    m_store = "rclone::local:" + m_scratch / "none";
    EXPECT_EQ(on_store({"list"}).exit_code, 10);
}

} // namespace
} // namespace qrtln::test
