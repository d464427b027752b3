// Restores: what comes back, where to, and what is refused.
#include "client/base/process_note.h"
#include "tests/client/simulated_server.h"

#include <sys/stat.h>

namespace qrtln::test {
namespace {

class Restore : public OverTheSimulator {
  protected:
    json restore(int exit_code, Words words, const std::string& says = "",
                 const Environment& environment = {}) {
        words.insert(words.begin(), "restore");
        return run(exit_code, words, says, environment);
    }
    // The action that the plan has for a path.
    static std::string action(const json& document, const std::string& path) {
        for (const json& item : document["plan"]["items"])
            if (item["path"] == path)
                return item["action"];
        return "none";
    }
    static struct stat status(const std::string& path) {
        struct stat found {};
        EXPECT_EQ(::stat(path.c_str(), &found), 0);
        return found;
    }
};

TEST_F(Restore, ALostDatabaseComesBackWithItsFolderOwnerModeAndTime) {
    const std::string mail = m_data + "/mail", before = digest("mail/user1.nsf");
    fs::permissions(m_user1, fs::perms(0640));
    fs::permissions(mail, fs::perms(0750));
    backup(0);
    const struct stat saved = status(m_user1);
    domino("lose", "mail/user1.nsf");
    fs::remove_all(mail);
    fs::create_directories(m_store + "/runtime/owed.jsonl"); // no list can be written

    const json planned = restore(0, {"mail/user1.nsf", "--activate", "--dry-run"});
    EXPECT_EQ(m_errors, "");
    EXPECT_EQ(planned["recovery_logs"]["first"], 1); // what a recovery would need
    EXPECT_EQ(planned["recovery_logs"]["on_server"], json::array({1}));
    EXPECT_EQ(action(planned, m_user1), "activate");
    EXPECT_FALSE(fs::exists(mail));

    const json done = restore(0, {"mail/user1.nsf", "--activate"}, "take a full backup");
    EXPECT_EQ(done["plan"]["items"], planned["plan"]["items"]);
    fs::remove(m_store + "/runtime/owed.jsonl");
    EXPECT_EQ(digest("mail/user1.nsf"), before);
    put("mail/user1.nsf");                                   // the server writes to it
    EXPECT_EQ(status(mail).st_mode, status(m_data).st_mode); // was not selected: as the one above
    EXPECT_TRUE(fs::is_empty(m_tmp));

    // With the whole system the folder's own mode comes back; and times do.
    fs::remove_all(mail);
    restore(0, {"--all", "--activate"});
    EXPECT_EQ(status(mail).st_mode & 07777, 0750U);
    EXPECT_EQ(status(m_user1).st_mode, saved.st_mode);
    EXPECT_EQ(status(m_user1).st_mtim.tv_nsec, saved.st_mtim.tv_nsec);
}

TEST_F(Restore, ADatabaseInUseIsNotTouchedAndASecondCommandFinishes) {
    const std::string set = backup(0)["set"], saved = digest("mail/user1.nsf");
    put("mail/user1.nsf");
    const std::string before = read_file(m_user1);
    const std::string waits = restore(0, {"mail/user1.nsf"})["result"]["waiting"][0]["copy"];
    EXPECT_THAT(waits, HasSubstr(m_tmp + "/qrtln-restored-"));
    EXPECT_EQ(read_file(m_user1), before); // without --activate
    {
        ServerTask held("hold " + m_server + " mail/user1.nsf");
        const json done =
            restore(3, {"mail/user1.nsf", "mail/user2.nsf", "--activate"}, "in use: " + m_user1);
        EXPECT_EQ(done["result"]["restored"], json::array({m_user2}));
        EXPECT_EQ(read_file(m_user1), before);
        backup(0, "copy"); // clears what killed runs left: not these
        for (const auto& copy : {waits, done["result"]["waiting"][0]["copy"].get<std::string>()})
            dominoSim("show " + copy);
    }
    {
        std::ifstream user(m_user1); // a plan tells who has it open
        json items = restore(0, {"mail", "--activate", "--dry-run"})["plan"]["items"];
        EXPECT_THAT(items[0]["used_by"], HasSubstr(std::to_string(::getpid()) + " ("));
        EXPECT_EQ(items[1]["used_by"], nullptr);
    }
    Words words = on_server({"restore", "mail/user1.nsf", "--set", set, "--activate"});
    words.pop_back(); // no JSON
    EXPECT_THAT(run_client(words).output, HasSubstr("as in " + set + ": what was changed since"));
    EXPECT_EQ(digest("mail/user1.nsf"), saved);
    EXPECT_TRUE(backup(0, "diff").contains("owed"));
}

TEST_F(Restore, ARetryUsesTheCopyThatWaitsIfItIsWholeAndThisUsersAlone) {
    const std::string set = backup(0)["set"];
    const std::pair<const char*, std::function<void(const std::string&)>> cases[] = {
        {"whole", [](auto&) {}},
        {"changed", [&](auto& copy) { flip_a_bit(copy); }},
        {"linked", [&](auto& copy) { fs::create_hard_link(copy, m_scratch / "spare"); }},
        {"others may write", [](auto& copy) { ::chmod(copy.c_str(), 0666); }},
        {"for all", [](auto& copy) { ::chmod(copy.substr(0, copy.find("/mail")).c_str(), 0777); }},
    };
    for (const auto& [title, happens] : cases) {
        m_tmp = m_scratch / title;
        fs::create_directories(m_tmp);
        const bool used = *title == 'w';
        json done;
        for (int i = 0; i < 2; ++i) // the second finds the first one's
            done = restore(3, {"mail/user1.nsf", "--activate"}, "",
                           fault("NSFTakeDatabaseOffline=5098"))["result"];
        EXPECT_THAT(std::vector<fs::path>(fs::directory_iterator(m_tmp), {}), SizeIs(1));
        happens(done["waiting"][0]["copy"]);
        flip(set, m_user1);
        restore(used ? 0 : 4, {"mail/user1.nsf", "--activate"});
        flip(set, m_user1);                   // back
        EXPECT_EQ(fs::is_empty(m_tmp), used); // what is not its own is left alone
    }
}

TEST_F(Restore, AWholeTreeIsRelocatedBelowItsWholePathOrPlainWhereNothingCollides) {
    domino("create", "other/user1.nsf");
    backup(0);
    fs::remove(m_data + "/qrtln_archive.json"); // the note of who archives the logs is not saved
    const auto server = snapshot(m_data);
    const std::string to = m_scratch / "elsewhere", plain = m_scratch / "plain";
    restore(0, {"--all", "--to", to, "--dry-run"});
    EXPECT_FALSE(fs::exists(to));
    for (int i = 0; i < 2; ++i) { // a second time over the first
        restore(0, {"--all", "--to", to});
        EXPECT_EQ(snapshot(to + m_data), server);
    }
    EXPECT_FALSE(fs::exists(to + m_server + "/logs"));
    EXPECT_EQ(snapshot(m_data), server);
    EXPECT_TRUE(fs::is_empty(m_tmp));
    restore(1, {"mail", "other", "--to", plain, "--plain"}, "both");
    EXPECT_FALSE(fs::exists(plain));
    restore(0, {"mail", "--to", plain, "--plain"});
    EXPECT_EQ(snapshot(plain), snapshot(m_data + "/mail"));
}

TEST_F(Restore, WhatMakesNoSenseOrIsNoPlaceForARestoreIsRefused) {
    backup(0);
    fs::create_directory_symlink(m_data, m_scratch / "alias");
    const auto server = snapshot(m_data), store = snapshot(m_store);
    for (const std::string& to : {m_data, m_scratch / "none/deep", m_scratch / "alias/x"})
        restore(1, {"--all", "--to", to});
    for (const Words& words : {Words{},
                               {"--all", "--plain"},
                               {"--all", "--to", m_scratch / "x", "--activate"},
                               {"--all", "--set", "latest", "--at", "2026-01-01 00:00"},
                               {"--all", "--at", "2026-02-30 00:00"}})
        restore(2, words);
    restore(13, {"mail/nobody.nsf"}, "mail/nobody.nsf");
    for (const char* what : {"--all", "mail"}) // the earliest set, with a time that takes it
        restore(13, {what, "--at", "2001-01-01 00:00"}, list()[0]["ended"]);
    SmallFileSystem small(m_scratch / "small", 300'000);
    if (small.mounted())
        restore(1, {"--all", "--to", m_scratch / "small/to"}, "nothing was written");
    m_tmp = m_data + "/mail";
    restore(1, {"--all", "--dry-run"}, "is inside the data directory");
    EXPECT_EQ(snapshot(m_data), server);
    EXPECT_EQ(snapshot(m_store), store);
}

TEST_F(Restore, TheWholeSystemComesBackFromTheFullSetAndWhatFollowedIt) {
    const std::string base = backup(0)["set"], first = digest("names.nsf");
    put("names.nsf");
    put("mail/user1.nsf");
    const std::string second = backup(0, "copy", {"mail"})["set"];
    const std::string saved = digest("mail/user1.nsf");
    for (const char* name : {"names.nsf", "mail/user1.nsf", "mail/user2.nsf"})
        put(name);
    const std::string dic = m_data + "/user.dic";
    write_file(dic, "changed");
    // A folder brings no file that is there; its name and --all do.
    EXPECT_EQ(action(restore(0, {m_data, "--dry-run"}), dic), "leave out");
    EXPECT_EQ(action(restore(0, {"user.dic", "--dry-run"}), dic), "write");

    // Logs come back only with the whole system and where their folder is lost.
    const std::string logs = m_server + "/logs", log = logs + "/S0000001.TXN";
    restore(3, {log, "--dry-run"});
    EXPECT_EQ(action(restore(0, {"--all", "--activate"}), log), "leave out");
    EXPECT_EQ(digest("names.nsf"), first);
    EXPECT_EQ(digest("mail/user1.nsf"), saved); // from the later set
    EXPECT_NE(read_file(dic), "changed");
    EXPECT_TRUE(fs::is_empty(m_tmp));
    fs::remove_all(logs);
    EXPECT_EQ(action(restore(0, {"--all", "--activate"}), log), "write");
    EXPECT_TRUE(fs::exists(log) && fs::exists(logs + "/nlogctrl.lfh"));
    put("names.nsf");

    // --at and --set choose the sets.
    const auto chosen = [&](Words words) {
        words.push_back("--dry-run");
        return restore(0, words)["plan"]["items"][0]["set"];
    };
    EXPECT_EQ(chosen({"names.nsf", "--at", list()[0]["ended"]}), base);
    EXPECT_EQ(chosen({"mail/user1.nsf"}), second);
    restore(13, {"names.nsf", "--set", second});
    restore(1, {"--all", "--set", second}, "--at " + second.substr(0, 16));
}

TEST_F(Restore, AFailureOfTheServerIsToldAndWhatIsReplacedIsKeptOnRequest) {
    backup(0);
    const auto before = snapshot(m_data);
    const Words words = {"mail/user1.nsf", "--activate", "--keep-replaced"};
    restore(14, words, "", fault("NotesInitExtended=272"));
    EXPECT_TRUE(fs::is_empty(m_tmp));
    for (const auto& [call, advice] : {std::pair{"NSFTakeDatabaseOffline=5098", "does not let go"},
                                       {"NSFTakeDatabaseOffline=16141", "its disk"},
                                       {"NSFTakeDatabaseOffline#2=272", "run as the user that"}}) {
        const json done = restore(3, words, advice, fault(call));
        EXPECT_EQ(done["result"]["waiting"][0]["in_use"], *advice == 'd');
        EXPECT_EQ(snapshot(m_data), before);
    }
    put("mail/user1.nsf"); // it is online
    const std::string live = read_file(m_user1);
    const std::string kept = restore(0, words)["result"]["kept_replaced"][0]["kept"];
    EXPECT_THAT(kept, testing::StartsWith(m_user1 + ".replaced-20"));
    EXPECT_EQ(read_file(kept), live);
}

// By its name where the data directories are the same, by its data directory where the names are.
TEST_F(Restore, AnotherServersSetsAreTakenOnlyWhenTheyAreNamed) {
    const std::string set = backup(0)["set"];
    const auto live = snapshot(m_data);
    // Two hosts with one data path: each has sets, an index and owed databases of its own.
    const Words mail2 = {"--server", "mail2"};
    for (const char* command : {"restore", "recover"})
        run(13, {command, "names.nsf", "--server", "mail2"}, "--from-server " + host_name());
    backup(1, "incr", mail2); // builds on no other's
    restore(1, {"names.nsf", "--set", set, "--activate", "--server", "mail2"});
    EXPECT_EQ(snapshot(m_data), live);
    backup(0, "full", mail2);
    backup(0, "full", mail2); // the second one's index has entries
    EXPECT_TRUE(fs::exists(m_store + "/runtime/servers/mail2/qrtln_DBIID.ini"));
    EXPECT_FALSE(fs::exists(m_store + "/runtime/qrtln_DBIID.ini"));
    run(0, {"prove", "--server", "mail2"});
    EXPECT_FALSE(list()[0].contains("proven"));
    restore(0, {"names.nsf", "--server", "mail2", "--from-server", host_name(), "--dry-run"});
    const std::string data = std::exchange(m_data, m_scratch / "other/data");
    m_server = m_scratch / "other";
    init("");
    const auto before = snapshot(m_data);
    const std::string moved = data + "=" + m_data;
    restore(13, {"names.nsf", "--activate"}, "--data-directory " + moved);
    restore(2, {"names.nsf", "--activate", "--data-directory", data + "=/elsewhere"});
    restore(0, {"names.nsf", "--set", set, "--to", m_scratch / "to"});
    EXPECT_EQ(read_file(m_scratch / "to" + data + "/names.nsf"), read_file(data + "/names.nsf"));
    EXPECT_EQ(snapshot(m_data), before);
    restore(0, {"names.nsf", "--activate", "--data-directory", moved});
    EXPECT_NE(snapshot(m_data), before);
}

TEST_F(Restore, AHostileSetWritesNothingOutsideTheDataDirectory) {
    const std::string set = backup(0)["set"], outside = m_scratch / "outside";
    for (const std::string end : {".nsf", ".id"}) {
        write_file(outside + "/precious" + end, "precious");
        fs::create_symlink(outside + "/precious" + end, m_data + "/live" + end);
        ASSERT_EQ(::mkfifo((m_data + "/fifo" + end).c_str(), 0600), 0);
    }
    fs::create_directory_symlink(outside, m_data + "/link");
    fs::create_directory_symlink("link", m_data + "/second");
    fs::create_directories(m_data + "/folder.nsf");
    Words paths = {outside + "/new.id", outside + "/new.nsf", outside + "/precious.nsf",
                   "relative.nsf", "../relative.id"};
    for (const char* path :
         {"/../../outside/up.nsf", "/mail/../../../outside/up.id", "/link/in.nsf", "/link/in.id",
          "/link/new/in.nsf", "/second/new/in.id", "/live.nsf", "/live.id", "/fifo.nsf", "/fifo.id",
          "/folder.nsf", "/user.id/below.id", "//double.id", "2/prefix.nsf"})
        paths.push_back(m_data + path);
    for (std::size_t length : {300, 1100})
        paths.push_back(m_data + "/" + std::string(length, 'x') + ".nsf");
    paths.push_back(m_data + std::string("/nul\0.nsf", 9));
    const ManifestItem model = item(set, m_data + "/user.id");
    const auto before = snapshot(outside), data = snapshot(m_data);
    Manifest hostile = manifest(set);
    for (ItemKind kind : {ItemKind::file, ItemKind::other}) { // the module's, and the client's own
        hostile.set = kind == ItemKind::file ? "20300101T000000Z-full" : "20300102T000000Z-full";
        hostile.items.assign(paths.size() + 1, model);
        for (std::size_t i = 0; i < paths.size(); ++i) {
            hostile.items[i].path = paths[i];
            hostile.items[i].kind = kind;
            hostile.items[i].mode = 06777;
        }
        hostile.items.back().path = outside + "/folder";
        hostile.items.back().kind = ItemKind::directory;
        hostile.items.back().object.clear();
        write_manifest(hostile);
        for (const Words& words : {Words{"--all"}, {"--all", "--activate"}}) {
            const json done = restore(3, words);
            EXPECT_THAT(done["result"]["failed"], SizeIs(paths.size()));
            EXPECT_THAT(done["result"]["restored"], IsEmpty());
        }
    }
    EXPECT_EQ(snapshot(outside), before);
    EXPECT_EQ(snapshot(m_data), data);
    EXPECT_FALSE(fs::exists(m_data + "2"));
}

} // namespace
} // namespace qrtln::test
