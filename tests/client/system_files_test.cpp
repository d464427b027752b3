// What the module does not know of a server is saved with the whole system, and comes back.
#include "tests/client/simulated_server.h"

namespace qrtln::test {
namespace {

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
        fs::remove_all(m_data);
        fs::create_directory(m_data);
        run(0, words);
    }
    const std::string m_page = m_data + "/domino/a\n\xff.html";
    std::string m_set;
};

TEST_F(SystemFiles, AreSavedWithTheWholeSystemAndComeBackAsTheyWere) {
    for (const std::string& path : {m_page, m_data + "/key.kyr", m_data + "/x.ft/index"})
        write_file(path, path);
    fs::create_symlink("domino", m_data + "/link");
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
    EXPECT_EQ(saved("incr"), Words{});
    EXPECT_EQ(saved("diff"), (Words{"other/key.kyr", "link/link"}));
    EXPECT_EQ(saved("full", {"--databases-only"}), Words{}); // and hides nothing of older sets
    lose_data_and({"restore", "--all", "--activate"});
    EXPECT_EQ(read_file(m_page), m_page);
    EXPECT_EQ(fs::status(m_page).permissions(), fs::perms(0640));
    EXPECT_EQ(read_file(m_data + "/key.kyr"), "changed");
    EXPECT_EQ(fs::read_symlink(m_data + "/link"), "nowhere");
}

TEST_F(SystemFiles, AreLeftOutAsSomebodySaysAndDatabasesBehindLinksAreNamed) {
    write_file(m_scratch / "away/old.nsf", read_file(m_data + "/names.nsf"));
    write_file(m_data + "/links/archive.dir", m_scratch / "away\r\nadmin\n");
    EXPECT_EQ(backup(3)["failed"][0]["path"], m_scratch / "away/old.nsf");
    for (const char* name : {"/a.html", "/b.jar", "/x.ft/keep"})
        write_file(m_data + name, name);
    const std::pair<Words, Words> cases[] = {
        {{"--exclude", "*.jar"}, {"other/a.html", "other/links/archive.dir"}},
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
