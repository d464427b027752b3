// Parts of a server that a plain copy of its databases misses: attachment objects, links, databases
// that nobody can open, and files that the module does not know.
#include "client/backup/attachment_objects.h"
#include "client/domino/notes_ini.h"
#include "client/sets/manifest.h"
#include "tests/client/simulated_server.h"

namespace qrtln::test {
namespace {

struct ServerParts : OverTheSimulator {
    static std::string first(const json& answer, const char* list = "failed") {
        return answer[list].empty() ? "" : answer[list][0]["path"].get<std::string>();
    }
};

TEST_F(ServerParts, EveryStoredDatabaseIsAsTheServerCommittedItWithTheObjectsThatItRefersTo) {
    for (const std::string& objects : {m_data + "/DAOS", m_scratch / "objects"}) {
        fs::remove_all(m_store);
        init("--objects " + objects);
        domino("attach", "names.nsf --count 2");
        const std::string out = m_scratch / "out" + std::to_string(objects.size());
        const std::string commits = out + ".commits";
        std::optional<ServerTask> writer("workload " + m_server +
                                         " names.nsf --attach --seconds 1 --manifest " + commits);
        for (const char* level : {"full", "incr"}) {
            const std::string set = backup(0, level, {"--exclude", "*", "--databases-only"})["set"];
            on_store({"extract", set, "--all", "--to", out + set});
            for (const std::string& name : databases(set)) {
                const bool changes = name == "names.nsf";
                dominoSim("check " + out + set + "/" + name + " --objects " + out + set +
                          (changes ? " --database " + name + " --manifest " + commits : ""));
            }
        }
        writer.reset();
        backup(0);
        fs::remove_all(objects);
        EXPECT_EQ(first(backup(3)), objects); // its disk is not mounted
        EXPECT_GE(run(0, {"restore", "mail.box"})["attachment_objects"]["missing"], 2);
        write_file(objects + "/0001/mine.nlo", "of the server");
        run(0, {"recover", "--all", "--replace-live"});
        dominoSim("check " + m_data + "/names.nsf --objects " + objects);
        EXPECT_EQ(read_file(objects + "/0001/mine.nlo"), "of the server");
    }
}

TEST_F(ServerParts, AnObjectThatIsPurgedDuringTheBackupComesFromAnEarlierSetOrFails) {
    const std::string known = m_data + "/DAOS/0001/known.nlo";
    write_file(known, "known");
    backup(0);
    fs::rename(known, m_data + "/DAOS/0001/other.nlo");
    const NotesIni ini = load_notes_ini(m_server + "/notes.ini");
    std::unique_ptr<Store> store = open_directory_store(m_store, StoreAccess::read);
    AttachmentObjects objects(*store, ini, {.level = "full", .listed = {known, "/unknown.nlo"}});
    const ObjectPlan plan = objects.plan();
    EXPECT_EQ(plan.refer.at(0).path, known);
    EXPECT_EQ(plan.failed.at(0).path, "/unknown.nlo");
}

TEST_F(ServerParts, ADatabaseLinkIsSavedAsItselfAndWhatItLeadsToIsNamed) {
    const std::string link = m_data + "/links/old.nsf", away = m_scratch / "away/old.nsf";
    write_file(away, read_file(m_data + "/names.nsf"));
    write_file(link, away + "\nadmin\n");
    EXPECT_EQ(first(backup(3)), away);
    settle();
    for (const char* level : {"full", "incr", "diff"})
        backup(0, level, {"--exclude", "links/old.nsf"});
    EXPECT_EQ(databases(list().back()["set"]), Words{}); // of the differential one
    fs::rename(link, m_data + "/mail.box");
    run(3, {"restore", "--all", "--activate"});
    EXPECT_EQ(read_file(link), away + "\nadmin\n");
    EXPECT_EQ(read_file(m_data + "/mail.box"), read_file(link));
}

TEST_F(ServerParts, ADatabaseThatCannotBeSavedHoldsUpNothingOnceItIsAcknowledged) {
    const std::string dead = m_data + "/mail/dead.nsf";
    const Words acknowledged = {"--exclude", "mail/dead.nsf"};
    fs::copy_file(m_data + "/names.nsf", dead);
    const std::string whole = backup(0)["set"];
    write_file(dead, "no database, and no link");
    fill_extents(2);
    EXPECT_EQ(first(backup(3, "full", {"--exclude", "*"})), dead);
    EXPECT_GT(extents().size(), 1U);
    for (const char* level : {"full", "incr", "diff"}) {
        const json answer = backup(0, level, acknowledged);
        EXPECT_EQ(first(answer, "left_out_databases"), dead) << level;
        EXPECT_FALSE(answer.contains("owed")) << level; // no set of nothing
        EXPECT_EQ(extents().size(), 1U);
    }
    run(0, {"prove"});
    run(0, {"restore", "--all"}, "its copy of " + whole + " is taken");
    run(0, {"recover", "--all", "--replace-live"});
    fs::copy_file(m_data + "/names.nsf", dead, fs::copy_options::overwrite_existing);
    EXPECT_EQ(databases(backup(0, "incr", acknowledged)["owed"]["set"]).at(0), "mail/dead.nsf");
}

struct SystemFiles : OverTheSimulator {
    // What a backup saves of what it finds itself: kinds and paths.
    Words saved(const std::string& level = "full", const Words& words = {}) {
        m_set = backup(0, level, words)["set"];
        Words found;
        for (const ManifestItem& item : manifest(m_set).items)
            if (item.kind == ItemKind::other || item.kind == ItemKind::link)
                found.push_back(item_kind_name(item.kind) + item.path.substr(m_data.size()));
        return found;
    }
    void lose_data_and(const Words& words) {
        domino("lose", "--data");
        run(0, words);
    }
    const std::string m_page = m_data + "/domino/a\n\xff.html";
    std::string m_set;
};

TEST_F(SystemFiles, AreSavedWithTheWholeSystemAndComeBackAsTheyWere) {
    for (const std::string& path : {m_page, m_data + "/key.kyr", m_data + "/x.ft/index"})
        write_file(path, path);
    fs::create_symlink("domino", m_data + "/link");
    fs::create_directory(m_data + "/empty");
    fs::permissions(m_page, fs::perms(0640));
    fs::remove(m_data + "/notes.ini"); // the one in use lies elsewhere
    EXPECT_EQ(saved(), (Words{"other/domino/a\n\xff.html", "other/key.kyr", "link/link"}));
    EXPECT_EQ(item(m_set, m_server + "/notes.ini").status, ItemStatus::stored);
    EXPECT_EQ(manifest(m_set).left_out.made_anew, 1U);
    EXPECT_EQ(saved("incr"), Words{});
    write_file(m_data + "/key.kyr", "changed");
    write_file(m_data + "/user.id", "the module passes it over at this level");
    fs::remove(m_data + "/link");
    fs::create_symlink("nowhere", m_data + "/link");
    EXPECT_EQ(saved("incr"), (Words{"other/key.kyr", "link/link", "other/user.id"}));
    EXPECT_EQ(saved("diff"), (Words{"other/key.kyr", "link/link"}));
    EXPECT_EQ(saved("full", {"--databases-only"}), Words{}); // and hides nothing of older sets
    lose_data_and({"restore", "--all", "--activate"});
    EXPECT_EQ(read_file(m_page), m_page);
    EXPECT_EQ(fs::status(m_page).permissions(), fs::perms(0640));
    EXPECT_EQ(read_file(m_data + "/key.kyr"), "changed");
    EXPECT_EQ(fs::read_symlink(m_data + "/link"), "nowhere");
    EXPECT_TRUE(fs::is_directory(m_data + "/empty"));
}

TEST_F(SystemFiles, AreLeftOutAsSomebodySaysAndDatabasesBehindLinksAreNamed) {
    write_file(m_scratch / "away/old.nsf", read_file(m_data + "/names.nsf"));
    write_file(m_data + "/links/archive.dir", m_scratch / "away\r\nadmin\n");
    EXPECT_EQ(backup(3)["failed"][0]["path"], m_scratch / "away/old.nsf");
    for (const char* name : {"/a.html", "/b.jar", "/x.ft/keep"})
        write_file(m_data + name, name);
    const std::pair<Words, Words> cases[] = {
        {{"--exclude", "*", "--include", m_data + "/?.jar"}, {"other/b.jar"}},
        {{"--include", "x.ft/", "--exclude", "links", "--exclude", "a*/", "--exclude", "?.jar"},
         {"other/a.html", "other/x.ft/keep"}},
    };
    for (auto [rules, expected] : cases) {
        rules.insert(rules.begin(), {"--exclude", "links/archive/*"});
        EXPECT_EQ(saved("full", rules), expected) << rules.back();
    }
}

TEST_F(SystemFiles, ARestoredLinkIsNotWrittenThrough) {
    write_file(m_page, "page");
    saved();
    Manifest hostile = manifest(m_set);
    for (ManifestItem& item : hostile.items)
        if (item.kind == ItemKind::directory && item.path != m_data) { // mail and domino
            item.kind = ItemKind::link;
            item.target = m_scratch.path();
        }
    hostile.set = "20300101T000000Z-full";
    write_manifest(hostile);
    for (const Words& words : {Words{"recover", "--all"}, {"restore", "--all", "--activate"}}) {
        lose_data_and(words);
        EXPECT_FALSE(fs::is_symlink(m_data + "/mail")) << words[0];
        EXPECT_EQ(read_file(m_page), "page");
    }
}

} // namespace
} // namespace qrtln::test
