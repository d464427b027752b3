// Recoveries and proofs: what comes back, to which moment, and what is left alone.
#include "client/base/text.h"
#include "tests/client/simulated_server.h"

namespace qrtln::test {
namespace {

class Recover : public OverTheSimulator {
  protected:
    json recover(int exit_code, Words words, const std::string& says = "",
                 const Environment& environment = {}) {
        words.insert(words.begin(), "recover");
        return run(exit_code, words, says, environment);
    }
    // Extents are filled, archived into a set, and removed by the server.
    std::string archive_extents() {
        fill_extents(2);
        return backup(0, "incr")["set"];
    }
    static json of(const json& document, const std::string& path) {
        for (const json& database : document["result"]["databases"])
            if (database["path"] == path)
                return database;
        return {{"outcome", "not told"}};
    }
    static std::string outcome(const json& document, const std::string& path) {
        return of(document, path)["outcome"];
    }
    // A recovery of a database that is in use, which waits from then on.
    void recover_while_in_use(const Words& words) {
        ServerTask held("hold " + m_server + " mail/user1.nsf");
        EXPECT_EQ(outcome(recover(3, words, "in use"), m_user1), "waiting");
    }
    // What a recovery must not change: the server without what its library writes at every start.
    std::map<std::string, std::string> live() const {
        auto state = snapshot(m_data);
        for (const auto& [name, content] : snapshot(m_server + "/logs"))
            state["logs" + name] = content;
        return state;
    }
};

TEST_F(Recover, ALostDatabaseComesBackToItsLastCommitAndTheServerHasNoMoreLogsThanBefore) {
    const std::string unlogged = m_data + "/mail/unlogged.nsf";
    domino("create", "mail/unlogged.nsf --unlogged");
    backup(0);
    const std::string saved = digest("mail/unlogged.nsf");
    put("mail/unlogged.nsf");
    put("mail/user1.nsf");
    archive_extents();
    put("mail/user1.nsf", "--text last");
    const std::string last = digest("mail/user1.nsf");
    const auto logs = extents();
    ASSERT_GT(logs.front(), 1);
    for (const char* name : {"mail/user1.nsf", "mail/unlogged.nsf"})
        domino("lose", name);
    const auto everything = snapshot(m_scratch.path());
    const json planned = recover(0, {"mail", "pubnames.ntf", "--dry-run"})["plan"];
    EXPECT_EQ(snapshot(m_scratch.path()), everything);
    EXPECT_THAT(planned["logs"]["restored"], Not(IsEmpty()));
    const json done = recover(0, {"mail", "pubnames.ntf"});
    EXPECT_EQ(outcome(done, m_user1), "recovered");
    EXPECT_EQ(of(done, m_user1)["recovered_to"], "the last change logged for the saved instance");
    EXPECT_EQ(of(done, m_user2)["recovered_to"], "the last committed change");
    EXPECT_EQ(done["result"]["restored"], json::array()); // the logs went again
    EXPECT_EQ(digest("mail/user1.nsf"), last);
    EXPECT_EQ(extents(), logs);
    for (const std::string& path : {unlogged, m_data + "/pubnames.ntf"}) // no log has them
        EXPECT_EQ(outcome(done, path), "as in its set");
    EXPECT_EQ(digest("mail/unlogged.nsf"), saved);
    EXPECT_TRUE(fs::is_empty(m_tmp));
    recover(1, {"mail", "--into", m_data + "/below"});
    put("mail/user1.nsf");
}

TEST_F(Recover, ToAMomentBringsWhatWasCommittedUpToItAndNothingElse) {
    backup(0);
    settle();
    put("mail/user1.nsf", "--text before");
    const std::string then = digest("mail/user1.nsf"), untouched = read_file(m_user2);
    settle();
    const std::string moment = utc_time(std::time(nullptr));
    settle();
    put("mail/user1.nsf", "--text after");
    const auto before = live();
    const std::tuple<std::string, int, const char*> refused[] = {
        {"2001-01-01 00:00", 13, "before --to 2000-12-31T23:00:00Z"},
        {utc_time(std::time(nullptr) + 3600), 2, "still to come"},
        {"20251026T003000Z", 2, "2025-10-26T01:59:59+02:00 or before"},
    };
    for (const auto& [time, code, text] : refused)
        recover(code, {"mail/user1.nsf", "--to", time}, text, {{"TZ", "Europe/Berlin"}});
    EXPECT_EQ(live(), before);
    recover(0, {"mail/user1.nsf", "--to", moment});
    EXPECT_EQ(digest("mail/user1.nsf"), then);
    EXPECT_EQ(read_file(m_user2), untouched);
}

TEST_F(Recover, ADatabaseInUseWaitsWhileTheOthersAreRecoveredAndASecondRunFinishesIt) {
    const std::string set = backup(0)["set"];
    put("mail/user1.nsf");
    put("mail/user2.nsf");
    const std::string second = digest("mail/user2.nsf"), before = read_file(m_user1);
    fs::remove(m_user2);
    recover_while_in_use({"mail"});
    EXPECT_EQ(read_file(m_user1), before);
    EXPECT_EQ(digest("mail/user2.nsf"), second);
    // Whoever clears the folder for temporary files must not be told that all is well.
    for (bool removed : {true, false}) {
        for (const auto& entry : fs::recursive_directory_iterator(m_tmp))
            if (entry.is_regular_file())
                removed ? (void)fs::remove(entry) : fs::resize_file(entry, 0);
        recover_while_in_use({});
    }
    put("mail/user1.nsf", "--text later");
    put("mail/user2.nsf", "--text later"); // must not be taken back
    const std::string last[] = {digest("mail/user1.nsf"), digest("mail/user2.nsf")};
    recover(1, {"names.nsf"}, "--abandon");
    EXPECT_THAT(recover(0, {"--dry-run"})["plan"]["databases"], SizeIs(1));
    const json done = recover(0, {});
    EXPECT_EQ(outcome(done, m_user1), "recovered");
    EXPECT_EQ(outcome(done, m_user2), "in place before");
    EXPECT_EQ(of(done, m_user2)["set"], set);
    EXPECT_EQ(digest("mail/user1.nsf"), last[0]);
    EXPECT_EQ(digest("mail/user2.nsf"), last[1]);
    EXPECT_TRUE(fs::is_empty(m_tmp));
}

// The server may have begun a new log meanwhile, whose extents have the same names.
TEST_F(Recover, AnAbandonedRecoveryLeavesNothingButRemovesNoLogButItsOwn) {
    backup(0);
    archive_extents();
    auto logs = extents();
    const std::string live_user1 = read_file(m_user1), ini = m_server + "/notes.ini";
    recover_while_in_use({"mail/user1.nsf"});
    ASSERT_GT(extents().size(), logs.size() + 1);
    const std::string other = m_server + "/logs/S0000001.TXN", variables = read_file(ini);
    write_file(other, "of another log");
    write_file(ini, "[Notes]\nDirectory=" + m_scratch.path() + "\n");
    recover(1, {"--abandon"}, "another server");
    write_file(ini, variables);
    EXPECT_THAT(recover(0, {"--abandon", "--dry-run"})["would_remove"],
                SizeIs(extents().size() - logs.size()));
    recover(0, {"--abandon"}, "left alone");
    EXPECT_EQ(read_file(other), "of another log");
    EXPECT_EQ(read_file(m_user1), live_user1);
    EXPECT_TRUE(fs::is_empty(m_tmp));
    logs.insert(logs.begin(), 1);
    EXPECT_EQ(extents(), logs);
    recover(2, {}); // nothing is left to go on with
}

TEST_F(Recover, AnOlderCopyMakesUpForADamagedOneUnlessItLeadsElsewhere) {
    const std::string names = m_data + "/names.nsf", old = backup(0)["set"];
    domino("compact", "names.nsf");
    put("mail/user1.nsf", "--text first");
    const std::string newest = backup(0, "copy")["set"];
    put("mail/user1.nsf", "--text second");
    const std::string last = digest("mail/user1.nsf"), compacted = read_file(names);
    for (const std::string& path : {names, m_user1})
        flip(newest, path);
    const json done = recover(4, {"names.nsf", "mail/user1.nsf"});
    EXPECT_EQ(read_file(names), compacted);
    EXPECT_THAT(done["result"]["damaged"][0]["reason"], HasSubstr("restore --set " + old));
    EXPECT_EQ(of(done, m_user1)["set"], old);
    EXPECT_EQ(done["result"]["replaced"][0]["path"], m_user1);
    EXPECT_EQ(digest("mail/user1.nsf"), last);
    flip(old, m_user1); // then no copy is whole
    EXPECT_EQ(recover(4, {"mail"})["result"]["damaged"][0]["path"], m_user1);
    EXPECT_EQ(digest("mail/user1.nsf"), last);
}

// The server takes no file offline that is no database, so that nothing could take its place.
TEST_F(Recover, AFileThatIsNoDatabaseAnyMoreIsSetAside) {
    backup(0);
    put("mail/user1.nsf");
    const std::string last = digest("mail/user1.nsf");
    for (const std::string& left : {std::string(), std::string(5000, 'x')}) {
        settle(); // the next name
        write_file(m_user1, left);
        EXPECT_EQ(recover(0, {"mail/user1.nsf", "--dry-run"})["plan"]["databases"][0]["set_aside"],
                  true);
        EXPECT_EQ(read_file(m_user1), left);
        recover(0, {"mail/user1.nsf"}, "set aside as " + m_user1 + ".damaged-20");
        EXPECT_EQ(digest("mail/user1.nsf"), last);
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(m_data + "/mail"), {}), 4); // both are kept
}

TEST_F(Recover, AGapIsFoundBeforeAnythingIsTouchedAndTheMomentItNamesIsReached) {
    backup(0);
    put("mail/user2.nsf", "--text early");
    const std::string early = digest("mail/user2.nsf");
    for (int i = 0; i < 4; ++i)
        settle(); // the moment that is named keeps a distance from the gap
    fill_extents(1);
    const std::string incr = archive_extents();
    put("mail/user2.nsf", "--text late");
    const std::string object = object_file(incr, m_server + "/logs/S0000002.TXN");
    const std::string whole = read_file(object);
    for (bool missing : {false, true}) {
        missing ? (void)fs::remove(object) : flip_a_bit(object);
        const auto before = live();
        recover(16, {"mail"}, "the transaction log 2 is missing");
        EXPECT_EQ(live(), before);
        EXPECT_TRUE(fs::is_empty(m_tmp));
        EXPECT_FALSE(fs::exists(m_store + "/runtime/recovery.json"));
    }
    const std::size_t hint = m_errors.find("--to 20");
    ASSERT_NE(hint, std::string::npos) << m_errors;
    recover(0, {"mail", "--to", m_errors.substr(hint + 5, 20)});
    EXPECT_EQ(digest("mail/user2.nsf"), early);
    write_file(object, whole);
    recover(0, {"mail", "--replace-live"});
    EXPECT_NE(digest("mail/user2.nsf"), early);
}

TEST_F(Recover, LostLogsComeBackFromTheStoreAndTheEndIsToldAsTheirs) {
    backup(0);
    put("mail/user1.nsf");
    archive_extents();
    backup(0, "incr");
    const std::string stored = digest("mail/user1.nsf");
    put("mail/user1.nsf", "--text lost");
    domino("lose", "--logs");
    fs::remove(m_user1);
    const auto before = live();
    run(16, {"prove"});                                  // brings no log to the server
    for (const char* dry : {"--verbose", "--dry-run"}) { // its disk may not be mounted
        recover(16, {"mail", dry});
        EXPECT_EQ(live(), before);
    }
    const json done = recover(3, {"mail/user1.nsf"}, "is lost");
    EXPECT_THAT(of(done, m_user1)["recovered_to"], HasSubstr("the end of the stored logs, 20"));
    EXPECT_EQ(digest("mail/user1.nsf"), stored);
    put("mail/user1.nsf"); // the server has a log again
    domino("lose", "--logs");
    recover(3, {"mail/user2.nsf", "--logs-lost"});
}

TEST_F(Recover, AProofTouchesNoLiveDatabaseAndIsReplacedByTheNext) {
    const std::string full = backup(0)["set"];
    put("mail/user1.nsf");
    const std::string incr = archive_extents();
    put("mail/user1.nsf");
    const auto before = live();
    const auto prove = [&](int exit_code) {
        const json done = run(exit_code, {"prove", full});
        EXPECT_EQ(live(), before);
        EXPECT_TRUE(fs::is_empty(m_tmp));
        EXPECT_THAT(list()[0]["proven"], testing::StartsWith(exit_code == 0 ? "20" : "failed"));
        return done;
    };
    const json done = prove(0);
    EXPECT_EQ(done["databases"], 6);
    EXPECT_LE(done["recovered_to"], done["time"]);
    EXPECT_FALSE(list()[1].contains("proven"));
    flip(full, m_user2);
    EXPECT_EQ(prove(4)["failures"][0]["path"], m_user2);
    flip(full, m_user2); // back
    prove(0);
    fs::remove(object_file(incr, m_server + "/logs/S0000001.TXN"));
    prove(16);

    // A set that is incomplete is no proof, whatever older sets have.
    m_store = m_scratch / "second";
    write_file(m_data + "/broken.nsf", "no database");
    backup(3, "full", {"--take-over"});
    run(13, {"prove"}); // the server cannot be recovered from that
    EXPECT_EQ(run(3, {"prove", "latest"})["failures"][0]["path"], m_data + "/broken.nsf");
}

TEST_F(Recover, NamesThatMeanSomethingToTheModuleAreTakenAsTheyAre) {
    const std::string star = m_data + "/mail/a*b.nsf", odd = "'odd [x] name\n]: 1.nsf'";
    m_tmp = m_scratch / "tmp -R chgd-old";
    fs::create_directories(m_tmp);
    for (const std::string& name : {std::string("'mail/a*b.nsf'"), std::string("mail/axb.nsf"),
                                    std::string("'mail/below/a*b.nsf'"), odd})
        domino("create", name);
    backup(0);
    put("'mail/a*b.nsf'");
    put(odd);
    const std::string last = digest("'mail/a*b.nsf'"), last_odd = digest(odd);
    for (const char* name : {"x-old", "a-R deld", "a\"b", "server/data2"}) {
        const std::string to = m_scratch / name;
        run(0, {"restore", "mail/below", "--to", to});
        const auto others = snapshot(to + m_data + "/mail/below");
        recover(0, {star, "--into", to});
        EXPECT_EQ(digest("'" + to + star + "'"), last);
        EXPECT_EQ(snapshot(to + m_data + "/mail/below"), others);
    }
    EXPECT_EQ(run(0, {"prove"})["databases"], 10);
    EXPECT_EQ(outcome(recover(0, {star}), star), "recovered");
    fs::remove_all(m_data);
    recover(0, {"--all"});
    EXPECT_EQ(digest("'mail/a*b.nsf'"), last);
    EXPECT_EQ(digest(odd), last_odd);
    EXPECT_TRUE(fs::is_empty(m_tmp));
}

} // namespace
} // namespace qrtln::test
