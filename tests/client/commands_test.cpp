// What every command has in common: arguments, exit codes, signals, failures that leave nothing.
#include "client/sets/owed.h"
#include "tests/client/simulated_server.h"

namespace qrtln::test {
namespace {

class Commands : public OverTheSimulator {
  protected:
    // The store without what was prepared, which is owed from then on.
    std::map<std::string, std::string> stored() const {
        auto state = snapshot(m_store);
        state.erase("/runtime/owed.jsonl");
        return state;
    }
};

TEST_F(Commands, ArgumentsSelectAndOneThatSelectsNothingIsNamed) {
    put("names.nsf");
    for (const char* name : {"'[x].nsf'", "'odd*/b[1]?\\.nsf'", "'odd*/c.d/e.nsf'"})
        domino("create", name);
    fs::create_directories(m_data + "/[bare]");
    fs::create_directory_symlink(m_data, m_scratch / "link");
    write_file(m_data + "/readme.txt", "no database");
    write_file(m_scratch / "elsewhere.nsf", "x");
    const std::string odd = "odd*/b[1]?\\.nsf";
    const std::pair<Words, Words> selected[] = {
        {{"[x].nsf"}, {"[x].nsf"}},
        {{"odd*"}, {odd, "odd*/c.d/e.nsf"}},
        {{"odd*/c.d", "./mail//user1.nsf"}, {"mail/user1.nsf", "odd*/c.d/e.nsf"}},
        {{m_scratch / "link/mail/user1.nsf", "mail/", m_data + "/odd*/../mail", "mail/user2.nsf"},
         {"mail/user1.nsf", "mail/user2.nsf"}},
    };
    for (const auto& [names, expected] : selected) {
        const json set = backup(0, "full", names);
        EXPECT_EQ(databases(set["set"]), expected);
        EXPECT_THAT(m_errors, testing::MatchesRegex("warning: Notes_ExecDirectory [^\n]*\n"));
    }
    backup(3, "full", {"mail/user1.nsf", "readme.txt"}, "'readme.txt' selected nothing");
    const std::pair<std::string, const char*> refused[] = {
        {"mail/none.nsf", "No such file"},
        {m_scratch / "elsewhere.nsf", "not below the data directory"},
        {"[bare]", "no name with a dot"},
        {std::string(1100, 'x'), "File name too long"},
    };
    const auto before = snapshot(m_store);
    for (const auto& [name, reason] : refused) {
        backup(1, "full", {"mail/user1.nsf", name}, reason);
        EXPECT_THAT(m_errors, HasSubstr(name));
    }
    EXPECT_EQ(snapshot(m_store), before);
}

// The server would remove it, and only its first part be stored.
TEST_F(Commands, ALogThatFillsUpAfterItWasTheActiveOneIsStoredWhole) {
    const std::string log = m_server + "/logs/S0000001.TXN";
    const std::string fills = "for i in 1 2; do " QRTLN_DOMINO_SIM " put " + m_server +
                              " names.nsf --count 5 --text " + std::string(9000, 'x') +
                              "; done >/dev/null";
    const json set = backup(0, "full", {}, "", hook("finish:*/S0000001.TXN) " + fills));
    EXPECT_EQ(set["logs"]["first"], 1);
    EXPECT_EQ(item(set["set"], log).size, 65536U);
    EXPECT_FALSE(item(set["set"], log).log->active);
    EXPECT_THAT(extents(), ElementsAre(set["logs"]["active"])); // the others are in the set alone
    EXPECT_THAT(on_store({"verify"}).output, Not(HasSubstr("note: "))); // the part is gone
}

TEST_F(Commands, ItemsThatCannotBeStoredFailAloneAndTheServerHearsOfIt) {
    fill_extents(2);
    domino("create", "gone.nsf");
    json set = backup(3, "full", {}, "", hook(R"(get:*/gone.nsf) rm $ITEM ;;
        prepare:*/names.nsf) echo >>../tries; exit 1 ;;
        prepared:*/mail.box) stat -c %a ${READY%/*} >../mode ;;
        prepared:*/user1.nsf) echo 'Database file [x] is shorter than the size to copy')"));
    EXPECT_EQ(read_file(m_server + "/tries"), "\n\n");
    EXPECT_EQ(read_file(m_server + "/mode"), "700\n"); // the copies are nobody else's
    ASSERT_EQ(set["failed"].size(), 2U);
    EXPECT_THAT(set["failed"].dump(),
                AllOf(HasSubstr("names.nsf"), HasSubstr("it is gone: it was there")));
    EXPECT_THAT(item(set["set"], m_user1).warnings,
                ElementsAre(HasSubstr("zeros stand for the rest")));
    EXPECT_EQ(extents().size(), 3U);
    // The server counts as saved what it handed out before its list broke: so do we.
    set = backup(3, "full", {}, "", hook("get:*/names.nsf) exit 1"));
    EXPECT_THAT(set["failed"].dump(),
                AllOf(HasSubstr("cannot list what comes next"), HasSubstr("it was not reached")));
    EXPECT_EQ(extents().size(), 3U);
}

// The server removes a log that is stored: half of one must not count.
TEST_F(Commands, AFileThatChangesWhileItIsReadHasFailedUnlessItMayGrow) {
    write_file(m_data + "/big.id", "x");
    const std::string changing = m_scratch / "changing";
    const std::tuple<std::string, std::string, int> cases[] = {
        {"big.id", "echo more >>$READY", 0},
        {"big.id", "truncate -s -64K $READY", 3},
        {"names.nsf", "echo more >>$READY", 3}, // its copy
    };
    for (const auto& [file, how, code] : cases) {
        const std::string changes = "prepared:*/" + file + ") truncate -s 8M $READY; touch " +
                                    changing + "; (while test -e " + changing + "; do " + how +
                                    "; done) >/dev/null 2>&1 & ;; finish:*) rm -f " + changing +
                                    "; sleep 0.02";
        const std::string set = backup(code, "full", {}, "", hook(changes))["set"];
        const ManifestItem stored = item(set, m_data + "/" + file);
        EXPECT_THAT(code == 0 ? stored.warnings.at(0) : stored.reason,
                    HasSubstr("its size changed"))
            << file << how;
        if (code == 0) {
            EXPECT_EQ(on_store({"dump", "latest", stored.path}).output.size(), stored.size);
        }
    }
    fs::remove(m_data + "/big.id");
    fill_extents(2);
    const auto logs = extents();
    const json set = backup(3, "full", {}, "", hook("get:*/S0000001.TXN) truncate -s 9 $ITEM"));
    EXPECT_THAT(set["failed"].dump(), HasSubstr("it has 9 bytes, but the full extents of this log "
                                                "have 65536"));
    EXPECT_EQ(extents(), logs);
}

// What is not read again is not mended either: that shows whether it was.
TEST_F(Commands, AFileIsReadAgainWhereItMayHaveChangedOrItsContentIsGone) {
    const std::string big = m_data + "/big.txt", small = m_data + "/small.txt";
    write_file(big, std::string(100000, 'x'));
    write_file(small, "small");
    std::this_thread::sleep_for(std::chrono::milliseconds(40)); // else its times say nothing yet
    ManifestItem stored = item(backup(0, "full", {"--compression", "off"})["set"], big);
    EXPECT_GT(stored.stored_size, 100000U);
    auto damage = [&] {
        std::fstream(m_store + "/" + stored_path(FileKind::object, stored.object),
                     std::ios::in | std::ios::out)
            .seekp(50)
            .put('!');
    };
    damage();
    backup(0);
    EXPECT_NE(verify(), 0); // which notes it
    backup(0);
    EXPECT_EQ(verify(), 0);
    damage();
    backup(0, "full", {"--reread", "--compression", "19"});
    EXPECT_EQ(verify(), 0);
    const auto time = fs::last_write_time(big);
    write_file(big, std::string(100000, 'y'));
    fs::last_write_time(big, time);
    stored = item(backup(0, "full", {"--compression", "19"})["set"], big);
    EXPECT_LT(stored.stored_size, 1000U);
    EXPECT_EQ(on_store({"dump", "latest", big}).output, std::string(100000, 'y'));
    fs::remove_all(m_store + "/packs");
    fs::create_directory(m_store + "/packs");
    backup(0);
    EXPECT_EQ(on_store({"dump", "latest", small}).output, "small");
}

TEST_F(Commands, AFailureOfTheModuleLeavesStoreAndServerAsTheyWere) {
    fill_extents(2);
    const auto logs = extents();
    const std::pair<Environment, const char*> cases[] = {
        {fault("NotesInitExtended=272"), "Access to data denied"},
        {hook("get:*) exit 1"), "cannot list the next item"},
        {hook("prepare:*/names.nsf) kill -ABRT $PPID"), "crashed with signal 6"},
        {{{"QRTLN_MODULE", "/dev/null"}}, "cannot load the module"},
    };
    backup(0, "copy");
    const auto before = stored();
    for (const auto& [environment, message] : cases) {
        EXPECT_EQ(backup(14, "full", {}, message, environment)["code"], 14);
        EXPECT_EQ(stored(), before);
        EXPECT_EQ(extents(), logs);
    }
}

TEST_F(Commands, ASignalWhileTheModuleIsBusyEndsTheRunCleanly) {
    backup(0);
    fill_extents(2);
    const auto before = stored();
    const auto logs = extents();
    const std::string mark = m_scratch / "mark", go = m_scratch / "go";
    const std::string waits = "touch " + mark + "; while ! rm " + go + "; do sleep 0.01; done";
    ::signal(SIGHUP, SIG_IGN); // as nohup does
    for (const auto& [signal, words] :
         {std::pair<int, Words>{SIGTERM, {"backup"}}, {SIGINT, {"restore", "--all"}}}) {
        Program client =
            start_client(on_server(words), hook("prepare:*/names.nsf|set:*/names.nsf) " + waits));
        while (!fs::exists(mark))
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ::kill(client.pid(), SIGHUP);
        ::kill(client.pid(), signal);
        write_file(go, "");
        const Outcome outcome = client.wait();
        EXPECT_EQ(outcome.exit_code, 128 + signal) << outcome.errors;
        EXPECT_EQ(json::parse(outcome.output)["code"], 128 + signal);
        EXPECT_EQ(stored(), before);
        EXPECT_EQ(extents(), logs);
        EXPECT_TRUE(fs::is_empty(m_tmp));
        fs::remove(mark);
    }
    ::signal(SIGHUP, SIG_DFL);
}

TEST_F(Commands, WhatAKilledRunOwesIsSavedFirstItsCopiesGoAndOnlyWhatIsStoredIsStruckOut) {
    const std::string names = m_data + "/names.nsf";
    domino("create", "gone.nsf");
    fs::create_directories(m_store + "/objects"); // its making was killed
    backup(0);
    for (const std::string& path : {names, m_data + "/gone.nsf"})
        OwedDatabases(m_store + "/runtime/owed.jsonl").add(m_data, path);
    fs::remove(m_data + "/gone.nsf");
    for (const char* left : {"/objects/incoming-0.tmp", "/sets/20231114T221320Z-full.json.tmp",
                             "/runtime/qrtln_DBIID.ini.4711", "/runtime/recovery.json.tmp"})
        write_file(m_store + left, "half");
    // No process has a number beyond the kernel's limit of 2^22; another lives.
    write_file(m_scratch / "precious/file", "x");
    fs::create_directory_symlink(m_scratch / "precious", m_tmp + "/qrtln-99999998-AbCdEf");
    write_file(m_tmp + "/qrtln-99999999-AbCdEf/copy.nsf", "x");
    fs::create_directory_symlink(m_scratch / "precious", m_tmp + "/qrtln-99999999-AbCdEf/link");
    write_file(m_tmp + "/qrtln-" + std::to_string(::getpid()) + "-AbCdEf/copy.nsf", "x");
    // Saved first, as far as possible; the failure of that operation is told, the second goes on.
    EXPECT_TRUE(backup(3, "incr", {}, "", hook("prepare:*/names.nsf) exit 1")).contains("owed"));
    backup(14, "copy", {}, "", fault("NotesInitExtended=272"));
    EXPECT_THAT(owed(), AllOf(HasSubstr(names), Not(HasSubstr("gone.nsf"))));
    for (bool was_owed : {true, false}) {
        EXPECT_EQ(backup(0, "diff", {"mail"}).contains("owed"), was_owed);
        EXPECT_EQ(owed(), "");
    }
    EXPECT_EQ(list()[1]["reason"], "owed");
    for (const auto& [name, content] : snapshot(m_store))
        EXPECT_NE(content, "half") << name;
    EXPECT_EQ(std::distance(fs::directory_iterator(m_tmp), {}), 2); // the link, and of who lives
    EXPECT_TRUE(fs::exists(m_scratch / "precious/file"));
    OwedDatabases(m_store + "/runtime/owed.jsonl").add(m_data, names);
    std::string changed = owed();
    changed[changed.find("names.nsf")] = 'm';
    write_file(m_store + "/runtime/owed.jsonl", changed);
    backup(1, "incr", {}, "line 1 of " + m_store + "/runtime/owed.jsonl is damaged");
    EXPECT_THAT(m_errors, HasSubstr("--level full"));
}

TEST_F(Commands, WrongPlacesAndUsesHaveTheirExitCodes) {
    const std::string ini = m_server + "/notes.ini", none = m_scratch / "none";
    const std::string other = m_scratch / "other", lost = m_scratch / "lost";
    write_file(other + "/file", "x");
    write_file(lost + "/sets/20231114T221320Z-full.json", "x"); // store.json is gone
    const auto to = [](const std::string& file, const std::string& store, Words more = {}) {
        more.insert(more.begin(), {"backup", "--notes-ini", file, "--store", store});
        return more;
    };
    const std::tuple<Words, int, const char*> cases[] = {
        {{}, 2, ""},
        {{"backup", "--store", m_store}, 2, ""},
        {to(ini, m_store, {"--level", "weekly"}), 2, ""},
        {{"mend"}, 2, "there is no command 'mend'"},
        {{"list", "--stroe", m_store}, 2, "did you mean '--store'?"},
        {{"--version"}, 0, ""},
        {{"help", "backup"}, 0, ""},
        {{"list", "--store", none}, 10, ""},
        {{"verify", "--store", other}, 10, ""},
        {{"verify", "--store", lost}, 10, ""},
        {to(ini, lost), 10, ""},
        {to(ini, none + "/deep"), 1, ""},
        {to(none, m_store), 14, ""},
        {to(ini, m_store, {"--tmp-dir", m_tmp, "--tmp-dir", m_tmp}), 2, ""}, // given twice
        {to(ini, m_store, {"--tmp-dir", m_data}), 1, ""},
        {to(ini, m_store, {"--tmp-dir", none}), 1, ""},
        {to(ini, m_data + "/deep/store"), 1, "is inside the data directory"},
    };
    for (const auto& [words, code, says] : cases) {
        const Outcome outcome = run_client(words);
        EXPECT_EQ(outcome.exit_code, code) << testing::PrintToString(words) << outcome.errors;
        EXPECT_THAT(outcome.errors, HasSubstr(says));
        EXPECT_FALSE(fs::exists(m_store));
    }
    SmallFileSystem small(m_scratch / "small", 64 << 10);
    if (small.mounted()) {
        EXPECT_THAT(run_client(to(ini, m_store, {"--tmp-dir", m_scratch / "small"})).errors,
                    AllOf(HasSubstr(" bytes) free, the database "), HasSubstr("hint: make room")));
    }
    backup(0, "copy");
    EXPECT_EQ(on_store({"show", "2001"}).exit_code, 13);
    EXPECT_EQ(run_client({"list"}, {{"QRTLN_STORE", m_store}}).exit_code, 0);
    auto lock = open_directory_store(m_store, StoreAccess::write);
    for (const Words& words : {Words{"backup"}, {"restore", "names.nsf", "--activate"}})
        run(11, words, "process " + std::to_string(::getpid()));
    EXPECT_EQ(verify(), 0); // one writer, any readers
}

TEST_F(Commands, VerifyNamesWhatIsDamagedAndTheNextBackupMendsIt) {
    write_file(m_data + "/large.bin", std::string(100'000, 'x'));
    const std::string set = backup(0, "copy")["set"];
    const std::string file = content_place(m_store, item(set, m_user1)).file;
    const std::string good = read_file(file);
    for (const std::string& bad : {good.substr(0, good.size() / 2), good + "x", std::string()}) {
        write_file(file, bad);
        const Outcome cut = on_store({"verify"});
        EXPECT_EQ(cut.exit_code, 4);
        EXPECT_THAT(cut.output,
                    AllOf(HasSubstr(item(set, m_user1).object), HasSubstr(": " + m_user1 + "\n")));
    }
    fs::remove(file);
    EXPECT_THAT(on_store({"verify", "latest", "--json"}).output, HasSubstr("is missing"));
    write_file(file, good);
    // Verify notes blocks, so that the next backup stores them again and mends the older set. It
    // looks at objects by itself.
    flip(set, m_user2);
    flip(set, m_data + "/large.bin");
    EXPECT_EQ(verify(), 4);
    EXPECT_GT(backup(0, "copy")["new_bytes"], 0);
    EXPECT_EQ(verify(), 0);
    EXPECT_EQ(backup(0, "copy")["new_bytes"], 0);

    const std::string manifest = m_store + "/sets/" + set + ".json", text = read_file(manifest);
    write_file(manifest, text + " ");
    for (const Words& words : {Words{"verify"}, {"show", set}, {"list"}})
        EXPECT_EQ(on_store(words).exit_code, 4);
    write_file(manifest, text);
    write_file(m_store + "/objects/00/stray", "x");
    write_file(m_store + "/sets/notes.json", "x");
    EXPECT_THAT(on_store({"verify"}).output, AllOf(HasSubstr("objects/00/stray is no object"),
                                                   HasSubstr("sets/notes.json is of no set")));
    EXPECT_EQ(verify(), 0);
    write_file(m_store + "/store.json", "{}");
    EXPECT_EQ(verify(), 4);
}

} // namespace
} // namespace qrtln::test
