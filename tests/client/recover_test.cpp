// Recoveries and proofs with the real module over the simulated server.
#ifdef QRTLN_DOMINO_SIM

#include "tests/client/simulated_server.h"

#include <array>
#include <functional>
#include <sys/stat.h>

namespace qrtln {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using test::HeldDatabase;
using test::OverTheSimulator;
using test::read_file;
using test::snapshot;
using test::write_file;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class Recover : public OverTheSimulator {
  protected:
    json recover(int exit_code, std::vector<std::string> more, test::Environment environment = {}) {
        more.insert(more.begin(), "recover");
        return run(exit_code, std::move(more), std::move(environment));
    }
    void put(const std::string& name, const std::string& more = "--text new") const {
        ASSERT_EQ(domino("put " + m_server + " " + name + " " + more), 0);
    }
    std::string backup_set(const std::string& level) { return full_backup({"--level", level}); }
    // Extents are filled, archived into a set, and removed by the server.
    std::string archive_extents() {
        fill_extents(2);
        return backup_set("incr");
    }
    std::string digest(const std::string& name) const { return shown(name)["digest"]; }
    static json of(const json& document, const std::string& path) {
        for (const json& database : document["result"]["databases"])
            if (database["path"] == path)
                return database;
        return {{"outcome", "not told"}};
    }
    static std::string outcome(const json& document, const std::string& path) {
        return of(document, path)["outcome"];
    }
    // What a recovery must not change: the server without what its library writes at every start.
    std::map<std::string, std::string> live() const {
        auto state = snapshot(m_data);
        for (const auto& [name, content] : snapshot(m_server + "/logs"))
            state["logs" + name] = content;
        return state;
    }
    static std::string local(std::time_t time) {
        std::tm fields{};
        ::localtime_r(&time, &fields);
        std::array<char, 32> text{};
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &fields);
        return text.data();
    }

    std::string m_data = m_server + "/data";
    std::string m_user1 = m_data + "/mail/user1.nsf";
    std::string m_user2 = m_data + "/mail/user2.nsf";
};

TEST_F(Recover, ALostDatabaseComesBackToItsLastCommitAndTheServerHasNoMoreLogsThanBefore) {
    full_backup();
    put("mail/user1.nsf");
    archive_extents();
    put("mail/user1.nsf", "--text last");
    std::string last = digest("mail/user1.nsf");
    const auto logs = extents();
    ASSERT_GT(logs.front(), 1);
    ASSERT_EQ(domino("lose " + m_server + " mail/user1.nsf"), 0);

    auto everything = snapshot(m_scratch.path());
    json planned = recover(0, {"mail/user1.nsf", "--dry-run"})["plan"];
    EXPECT_EQ(snapshot(m_scratch.path()), everything);
    EXPECT_THAT(planned["logs"]["restored"], Not(IsEmpty()));
    json done = recover(0, {"mail/user1.nsf"});
    EXPECT_EQ(of(done, m_user1)["outcome"], "recovered");
    EXPECT_EQ(of(done, m_user1)["recovered_to"], "the last change logged for the saved instance");
    EXPECT_EQ(of(done, m_user1)["set"], planned["databases"][0]["set"]);
    EXPECT_EQ(done["result"]["restored"], json::array()); // the logs went again
    EXPECT_EQ(digest("mail/user1.nsf"), last);
    EXPECT_EQ(extents(), logs);
    EXPECT_TRUE(fs::is_empty(m_tmp));
    recover(2, {}); // nothing is left to go on with
    recover(1, {"mail", "--into", m_data + "/below"});
    put("mail/user1.nsf");
}

TEST_F(Recover, ToAMomentBringsWhatWasCommittedUpToItAndNothingElse) {
    full_backup();
    settle();
    put("mail/user1.nsf", "--text before");
    std::string then = digest("mail/user1.nsf");
    std::string untouched = read_file(m_user2);
    settle();
    std::time_t moment = std::time(nullptr);
    settle();
    put("mail/user1.nsf", "--text after");
    auto before = live();
    const std::tuple<std::string, int, std::string> refused[] = {
        {"2001-01-01 00:00", 1, "before --to 2001-01-01T00:00:00Z"},
        {local(std::time(nullptr) + 3600), 2, "still to come"},
        {"20251026T003000Z", 2, "2025-10-26T01:59:59+02:00 or before"},
        {"2026-02-30 00:00", 2, "--to '2026-02-30 00:00': there is no such time"},
    };
    for (const auto& [time, code, text] : refused) {
        recover(code, {"mail/user1.nsf", "--to", time},
                {{"TZ", code == 2 && text != "still to come" ? "Europe/Berlin" : "UTC0"}});
        EXPECT_THAT(m_errors, HasSubstr(text)) << time;
        EXPECT_EQ(live(), before);
        EXPECT_FALSE(fs::exists(m_store + "/runtime/recovery.json"));
    }
    recover(0, {"mail/user1.nsf", "--to", local(moment)});
    EXPECT_EQ(digest("mail/user1.nsf"), then);
    EXPECT_EQ(read_file(m_user2), untouched);
}

TEST_F(Recover, AWholeDataFolderComesBackWithFilesFoldersAndModes) {
    std::string odd = "odd [x] name\n]: 1.nsf";
    for (const auto& [name, mode] : {std::pair{"", 0711}, {"/mail", 0750}, {"/user.id", 0640}})
        ASSERT_EQ(::chmod((m_data + name).c_str(), mode), 0);
    ASSERT_EQ(domino("create " + m_server + " '" + odd + "'"), 0);
    full_backup();
    put("mail/user1.nsf");
    archive_extents();
    put("names.nsf");
    put("'" + odd + "'");
    std::map<std::string, std::string> digests;
    for (const char* name : {"names.nsf", "mail/user1.nsf", "mail/user2.nsf", "log.nsf"})
        digests[name] = digest(name);
    digests["'" + odd + "'"] = digest("'" + odd + "'");
    std::string id = read_file(m_data + "/user.id");
    fs::remove_all(m_data);

    json done = recover(0, {"--all"});
    for (const auto& [name, content] : digests)
        EXPECT_EQ(digest(name), content) << name;
    EXPECT_EQ(read_file(m_data + "/user.id"), id);
    for (const auto& [name, mode] : {std::pair{"", 0711}, {"/mail", 0750}, {"/user.id", 0640}}) {
        struct stat status {};
        ASSERT_EQ(::stat((m_data + name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, static_cast<mode_t>(mode)) << name;
    }
    EXPECT_EQ(of(done, m_data + "/pubnames.ntf")["outcome"], "as in its set");
}

TEST_F(Recover, ADatabaseInUseWaitsWhileTheOthersAreRecoveredAndASecondRunFinishesIt) {
    full_backup();
    put("mail/user1.nsf");
    put("mail/user2.nsf");
    std::string first = digest("mail/user1.nsf");
    std::string second = digest("mail/user2.nsf");
    fs::remove(m_user2);
    std::string set = list().back()["set"];
    {
        HeldDatabase held(m_server, "mail/user1.nsf");
        std::string before = read_file(m_user1);
        json done = recover(3, {"mail"});
        EXPECT_EQ(outcome(done, m_user1), "waiting");
        EXPECT_THAT(m_errors, HasSubstr("in use"));
        EXPECT_EQ(outcome(done, m_user2), "recovered");
        EXPECT_EQ(read_file(m_user1), before);
        EXPECT_EQ(digest("mail/user2.nsf"), second);
    }
    put("mail/user1.nsf", "--text later");
    put("mail/user2.nsf", "--text later"); // must not be taken back
    full_backup({"--level", "copy", "mail/user2.nsf"});
    first = digest("mail/user1.nsf");
    second = digest("mail/user2.nsf");
    recover(1, {"names.nsf"});
    EXPECT_THAT(m_errors, HasSubstr("--abandon"));
    EXPECT_THAT(recover(0, {"--dry-run"})["plan"]["databases"], SizeIs(1));
    json done = recover(0, {});
    EXPECT_EQ(outcome(done, m_user1), "recovered");
    EXPECT_EQ(outcome(done, m_user2), "in place before");
    EXPECT_EQ(of(done, m_user2)["set"], set);
    EXPECT_EQ(digest("mail/user1.nsf"), first);
    EXPECT_EQ(digest("mail/user2.nsf"), second);
    EXPECT_TRUE(fs::is_empty(m_tmp));
}

// Whoever clears the folder for temporary files must not be told that all is well.
TEST_F(Recover, CopiesThatVanishedAreRestoredAgainAndAnAbandonedRecoveryLeavesNothing) {
    full_backup();
    HeldDatabase held(m_server, "mail/user1.nsf");
    recover(3, {"mail/user1.nsf"});
    for (const char* what : {"folder", "files", "copies"}) {
        std::vector<fs::path> cleaned;
        for (const auto& entry : fs::recursive_directory_iterator(m_tmp))
            if (*what == 'f' ? entry.is_directory() == (what[1] == 'o')
                             : entry.path().extension() == ".nsf")
                cleaned.push_back(entry.path());
        for (const fs::path& path : cleaned)
            fs::remove_all(path);
        ASSERT_FALSE(cleaned.empty());
        EXPECT_EQ(outcome(recover(3, {}), m_user1), "waiting") << what;
    }
    std::string before = read_file(m_user1);
    recover(0, {"--abandon"});
    EXPECT_TRUE(fs::is_empty(m_tmp));
    EXPECT_EQ(read_file(m_user1), before);
    recover(2, {});
}

// The server may have begun a new log meanwhile, whose extents have the same names.
TEST_F(Recover, AnAbandonedRecoveryRemovesNoLogButItsOwn) {
    full_backup();
    archive_extents();
    auto logs = extents();
    {
        HeldDatabase held(m_server, "mail/user1.nsf");
        recover(3, {"mail/user1.nsf"});
    }
    ASSERT_GT(extents().size(), logs.size() + 1);
    std::string other = m_server + "/logs/S0000001.TXN";
    write_file(other, "of another log");
    auto before = snapshot(m_scratch.path());
    json shown = recover(0, {"--abandon", "--dry-run"});
    EXPECT_THAT(shown["would_remove"], SizeIs(extents().size() - logs.size()));
    EXPECT_EQ(snapshot(m_scratch.path()), before);
    std::string ini = read_file(m_server + "/notes.ini");
    write_file(m_server + "/notes.ini", "[Notes]\nDirectory=" + m_scratch.path() + "\n");
    recover(1, {"--abandon"});
    EXPECT_THAT(m_errors, HasSubstr("another server"));
    write_file(m_server + "/notes.ini", ini);
    recover(0, {"--abandon"});
    EXPECT_THAT(m_errors, HasSubstr("left alone"));
    EXPECT_EQ(read_file(other), "of another log");
    logs.insert(logs.begin(), 1);
    EXPECT_EQ(extents(), logs);
}

TEST_F(Recover, WhatNoSetLeadsToIsReplacedOnlyWhenThatIsSaid) {
    std::string full = full_backup();
    settle();
    std::string moment = local(std::time(nullptr));
    settle();
    const std::pair<const char*, std::function<void()>> histories[] = {
        {"recovered",
         [&] {
             recover(0, {"mail/user1.nsf", "--to", moment});
         }},
        {"compacted", [&] { ASSERT_EQ(domino("compact " + m_server + " mail/user1.nsf"), 0); }},
        {"restored",
         [&] {
             run(0, {"restore", "mail/user1.nsf", "--activate"});
         }},
    };
    for (const auto& [title, happens] : histories) {
        SCOPED_TRACE(title);
        put("mail/user1.nsf", "--text before");
        happens();
        std::string then = read_file(m_user1);
        put("mail/user2.nsf");
        json done = recover(3, {"mail"});
        EXPECT_EQ(read_file(m_user1), then);
        EXPECT_THAT(done["result"]["failed"].dump(), HasSubstr("--replace-live"));
        EXPECT_EQ(of(done, m_user2)["recovered_to"], "the last committed change");
        EXPECT_THAT(recover(3, {"mail", "--dry-run"})["plan"]["refused"], SizeIs(1));
        put("mail/user1.nsf", "--text after");
        then = digest("mail/user1.nsf");
        backup_set("incr"); // what is owed comes first, in a set of its own
        done = recover(0, {"mail/user1.nsf"});
        EXPECT_EQ(of(done, m_user1)["recovered_to"], "the last committed change");
        EXPECT_EQ(digest("mail/user1.nsf"), then);
    }
}

TEST_F(Recover, AnOlderCopyThatLeadsElsewhereIsNotTakenUnasked) {
    ASSERT_EQ(domino("create " + m_server + " mail/unlogged.nsf --unlogged"), 0);
    std::string old = full_backup();
    ASSERT_EQ(domino("compact " + m_server + " mail/user1.nsf"), 0);
    put("mail/unlogged.nsf");
    std::string newest = backup_set("copy");
    for (const char* name : {"/mail/user1.nsf", "/mail/unlogged.nsf"}) {
        std::string path = m_data + name;
        std::string before = read_file(path);
        flip_a_bit(object_file(newest, path));
        json done = recover(4, {path});
        EXPECT_EQ(read_file(path), before);
        EXPECT_THAT(done["result"]["damaged"][0]["reason"], HasSubstr("restore --set " + old));
    }
}

// The server takes no file offline that is no database, so that nothing could take its place.
TEST_F(Recover, AFileThatIsNoDatabaseAnyMoreIsSetAside) {
    full_backup();
    put("mail/user1.nsf");
    std::string last = digest("mail/user1.nsf");
    for (const std::string& left : {std::string(), std::string(5000, 'x')}) {
        write_file(m_user1, left);
        EXPECT_EQ(recover(0, {"mail/user1.nsf", "--dry-run"})["plan"]["databases"][0]["set_aside"],
                  true);
        EXPECT_EQ(read_file(m_user1), left);
        json done = recover(0, {"mail/user1.nsf"});
        EXPECT_EQ(outcome(done, m_user1), "recovered");
        EXPECT_THAT(m_errors, HasSubstr("set aside as " + m_user1 + ".damaged-20"));
        EXPECT_EQ(digest("mail/user1.nsf"), last);
        settle(); // the next name
    }
    std::size_t aside = 0;
    for (const auto& entry : fs::directory_iterator(m_data + "/mail"))
        aside += entry.path().string().find(".damaged-") != std::string::npos ? 1 : 0;
    EXPECT_EQ(aside, 2U);
}

TEST_F(Recover, AGapIsFoundBeforeAnythingIsTouchedAndTheMomentItNamesIsReached) {
    full_backup();
    put("mail/user2.nsf", "--text early");
    std::string early = digest("mail/user2.nsf");
    for (int i = 0; i < 4; ++i)
        settle(); // the moment that is named keeps a distance from the gap
    fill_extents(1);
    std::string incr = archive_extents();
    std::string log;
    for (const ManifestItem& item : manifest(incr).items)
        if (item.log && item.log->number == 2)
            log = item.path;
    ASSERT_FALSE(log.empty());
    put("mail/user2.nsf", "--text late");
    std::string object = object_file(incr, log);
    std::string whole = read_file(object);
    for (bool missing : {false, true}) {
        SCOPED_TRACE(missing);
        missing ? (void)fs::remove(object) : flip_a_bit(object);
        auto before = live();
        recover(16, {"mail"});
        EXPECT_THAT(m_errors, HasSubstr("the transaction log 2 is missing"));
        EXPECT_EQ(live(), before);
        EXPECT_TRUE(fs::is_empty(m_tmp));
        EXPECT_FALSE(fs::exists(m_store + "/runtime/recovery.json"));
    }
    std::size_t hint = m_errors.find("--to 20");
    ASSERT_NE(hint, std::string::npos) << m_errors;
    recover(0, {"mail", "--to", m_errors.substr(hint + 5, 20)});
    EXPECT_EQ(digest("mail/user2.nsf"), early);
    write_file(object, whole);
    recover(0, {"mail", "--replace-live"});
    EXPECT_NE(digest("mail/user2.nsf"), early);
}

TEST_F(Recover, AnOlderCopyMakesUpForADamagedOneWithALongerRollForward) {
    std::string old = full_backup();
    put("mail/user1.nsf", "--text first");
    std::string newest = backup_set("copy");
    put("mail/user1.nsf", "--text second");
    std::string last = digest("mail/user1.nsf");
    flip_a_bit(object_file(newest, m_user1));
    json done = recover(0, {"mail"});
    EXPECT_EQ(of(done, m_user1)["set"], old);
    EXPECT_EQ(done["result"]["replaced"][0]["path"], m_user1);
    EXPECT_EQ(digest("mail/user1.nsf"), last);
    flip_a_bit(object_file(old, m_user1));
    std::string before = read_file(m_user1);
    std::string second = digest("mail/user2.nsf");
    done = recover(4, {"mail"});
    EXPECT_EQ(done["result"]["damaged"][0]["path"], m_user1);
    EXPECT_EQ(outcome(done, m_user2), "recovered");
    EXPECT_EQ(read_file(m_user1), before);
    EXPECT_EQ(digest("mail/user2.nsf"), second);
}

TEST_F(Recover, WhatNoLogCoversComesBackAsInItsSet) {
    ASSERT_EQ(domino("create " + m_server + " mail/unlogged.nsf --unlogged"), 0);
    full_backup();
    std::string saved = digest("mail/unlogged.nsf");
    put("mail/unlogged.nsf");
    put("mail/user1.nsf");
    std::string last = digest("mail/user1.nsf");
    std::string path = m_data + "/mail/unlogged.nsf";
    json done = recover(0, {"mail", "pubnames.ntf"});
    EXPECT_EQ(of(done, path)["outcome"], "as in its set");
    EXPECT_THAT(of(done, path)["recovered_to"], HasSubstr("its set, ended 20"));
    EXPECT_EQ(of(done, m_data + "/pubnames.ntf")["outcome"], "as in its set");
    EXPECT_EQ(digest("mail/unlogged.nsf"), saved);
    EXPECT_EQ(digest("mail/user1.nsf"), last);
}

TEST_F(Recover, WithoutLoggingEverythingComesBackAsInItsSet) {
    std::string set = full_backup();
    Manifest old = manifest(set); // an earlier release did not tell what no log covers
    for (ManifestItem& item : old.items)
        if (item.path.ends_with(".ntf"))
            item.copied = 0;
    open_directory_store(m_store, StoreAccess::change)->rewrite_manifest(set, serialize(old));
    std::string ini = read_file(m_server + "/notes.ini");
    ini.replace(ini.find("TRANSLOG_Status=1"), 17, "TRANSLOG_Status=0");
    write_file(m_server + "/notes.ini", ini);
    fs::remove(m_user1);
    EXPECT_EQ(outcome(recover(0, {"pubnames.ntf"}), m_data + "/pubnames.ntf"), "as in its set");
    recover(3, {"mail/user1.nsf", "--dry-run"});
    json done = recover(3, {"mail/user1.nsf"});
    EXPECT_EQ(outcome(done, m_user1), "as in its set");
    EXPECT_THAT(of(done, m_user1)["reason"], HasSubstr("TRANSLOG_Status"));
    EXPECT_EQ(run(3, {"prove"})["databases"], 1);
    recover(2, {}); // and nothing is left to go on with
}

TEST_F(Recover, LostLogsComeBackFromTheStoreAndTheEndIsToldAsTheirs) {
    full_backup();
    put("mail/user1.nsf");
    archive_extents();
    backup_set("incr");
    std::string stored = digest("mail/user1.nsf");
    put("mail/user1.nsf", "--text lost");
    ASSERT_EQ(domino("lose " + m_server + " --logs"), 0);
    fs::remove(m_user1);
    auto before = live();
    run(16, {"prove"});
    EXPECT_EQ(live(), before); // a proof brings no log to the server
    EXPECT_THAT(list().back()["proven"], HasSubstr("failed"));
    for (const char* dry : {"--json", "--dry-run"}) { // its disk may not be mounted
        recover(16, {"mail", dry});
        EXPECT_EQ(live(), before);
    }
    json done = recover(3, {"mail/user1.nsf"});
    EXPECT_THAT(of(done, m_user1)["recovered_to"], HasSubstr("the end of the stored logs, 20"));
    EXPECT_THAT(m_errors, HasSubstr("is lost"));
    EXPECT_EQ(digest("mail/user1.nsf"), stored);
    EXPECT_TRUE(fs::exists(m_server + "/logs/nlogctrl.lfh"));
    put("mail/user1.nsf");
    ASSERT_EQ(domino("lose " + m_server + " --logs"), 0);
    recover(3, {"mail/user2.nsf", "--logs-lost"});
}

TEST_F(Recover, AProofTouchesNoLiveDatabaseAndIsReplacedByTheNext) {
    full_backup();
    put("mail/user1.nsf");
    std::string set = archive_extents();
    std::string full = list()[0]["set"];
    put("mail/user1.nsf");
    auto before = live();
    EXPECT_EQ(list()[0]["proven"], "-");
    json done = run(0, {"prove", full});
    EXPECT_EQ(done["databases"], 6);
    EXPECT_LE(done["recovered_to"].get<std::string>(), done["time"].get<std::string>());
    EXPECT_EQ(live(), before);
    EXPECT_TRUE(fs::is_empty(m_tmp));
    EXPECT_THAT(list()[0]["proven"], HasSubstr("20"));
    EXPECT_THAT(list()[0]["proven"], Not(HasSubstr("failed")));
    EXPECT_EQ(list()[1]["proven"], "-");

    flip_a_bit(object_file(full, m_user2));
    done = run(4, {"prove", full});
    EXPECT_EQ(done["failures"][0]["path"], m_user2);
    EXPECT_THAT(list()[0]["proven"], HasSubstr("failed"));
    EXPECT_EQ(live(), before);
    flip_a_bit(object_file(full, m_user2)); // back
    run(0, {"prove", full});
    EXPECT_THAT(list()[0]["proven"], Not(HasSubstr("failed")));

    for (const ManifestItem& item : manifest(set).items)
        if (item.log && item.log->number == 1)
            fs::remove(object_file(set, item.path));
    run(16, {"prove", full});
    EXPECT_THAT(list()[0]["proven"], HasSubstr("failed"));
    EXPECT_EQ(live(), before);

    // A set that is incomplete is no proof, whatever older sets have.
    m_store = m_scratch / "second";
    write_file(m_data + "/broken.nsf", "no database");
    ASSERT_EQ(backup().exit_code, 1); // the other store archives the logs
    ASSERT_EQ(backup({"--take-over"}).exit_code, 3);
    ASSERT_EQ(client({"prove"}).exit_code, 1); // the server cannot be recovered from that
    done = run(3, {"prove", "latest"});
    EXPECT_EQ(done["databases"], 6);
    ASSERT_THAT(done["failures"], testing::SizeIs(1));
    EXPECT_EQ(done["failures"][0]["path"], m_data + "/broken.nsf");
}

TEST_F(Recover, NamesThatMeanSomethingToTheModuleAreTakenAsTheyAre) {
    const std::string star = m_data + "/mail/a*b.nsf";
    m_tmp = m_scratch / "tmp -R chgd-old";
    fs::create_directories(m_tmp);
    for (const char* name : {"a*b", "axb", "below/a*b"})
        ASSERT_EQ(domino("create " + m_server + " 'mail/" + name + ".nsf'"), 0);
    full_backup();
    put("'mail/a*b.nsf'");
    std::string last = digest("'mail/a*b.nsf'");
    for (const char* name : {"x-old", "a-R", "deld", "CHGD", "a\"b", "server/data2"}) {
        std::string to = m_scratch / name;
        run(0, {"restore", "mail/below", "--to", to});
        auto others = snapshot(to + m_data + "/mail/below");
        recover(0, {star, "--into", to});
        EXPECT_EQ(digest("'" + to + star + "'"), last);
        EXPECT_EQ(snapshot(to + m_data + "/mail/below"), others);
    }
    EXPECT_EQ(run(0, {"prove"})["databases"], 9);
    auto others = snapshot(m_data);
    fs::remove(star);
    for (int i = 0; i < 2; ++i) // lost, and there
        EXPECT_EQ(outcome(recover(0, {star}), star), "recovered");
    EXPECT_EQ(digest("'mail/a*b.nsf'"), last);
    others["/mail/a*b.nsf"] = read_file(star);
    EXPECT_EQ(snapshot(m_data), others);
    EXPECT_TRUE(fs::is_empty(m_tmp));
}

} // namespace
} // namespace qrtln

#endif
