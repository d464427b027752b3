// Every story of the client over a simulated server in each of its moods.
#ifdef QRTLN_DOMINO_SIM

#include "tests/client/simulated_server.h"

#include <cstdlib>
#include <map>
#include <set>

namespace qrtln {
namespace {

using nlohmann::json;
using test::OverTheSimulator;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

// What is not as on a server without moods, where every story ends with 0.
struct Departure {
    const char* mood;
    const char* story;
    int exit_code;
    const char* message;
};
constexpr Departure departures[] = {
    {"ended", "incr", 0, "NSFEndArchivingLogs was called after NotesTerm, to end"},
    {"zone", "diff", 3, "TZ"},
    {"zone", "documents", 3, "TZ"},
    {"zone", "prove", 3, "TZ"}, // to the moment of the set's end
};

// QRTLN_LONG_TESTS=1 in the environment: each mood by itself, too.
std::vector<const char*> moods() {
    std::vector<const char*> all = {"ended,flags,before", "zone"};
    if (std::getenv("QRTLN_LONG_TESTS") != nullptr)
        all.insert(all.end(), {"", "ended", "flags", "before", "locale", "foreign",
                               "ended,flags,zone,before,locale,foreign"});
    return all;
}

class Moods : public OverTheSimulator, public testing::WithParamInterface<const char*> {
  protected:
    Moods() { set_moods(GetParam()); }
    // Runs the words of a story, and looks at what must hold after each.
    json story(const std::string& name, const std::vector<std::string>& words) {
        SCOPED_TRACE(name);
        int exit_code = 0;
        std::vector<std::string> messages;
        for (const Departure& departure : departures)
            if (is_in(departure.mood) && name == departure.story) {
                exit_code = departure.exit_code;
                messages.emplace_back(departure.message);
            }
        json document = run(exit_code, words, {{"TZ", "AAA-9"}});
        for (const std::string& message : messages)
            EXPECT_THAT(m_errors, HasSubstr(message));
        EXPECT_THAT(m_errors, Not(HasSubstr("the process ends")));
        EXPECT_EQ(test::run_client({"verify", "--store", m_store}, {}).exit_code, 0);
        for (const auto& [database, digest] : m_live)
            EXPECT_EQ(shown(database)["digest"], digest) << database;
        check_extents();
        return document;
    }
    // A backup has, or names, what users changed since the last one.
    json backup_story(const std::string& level) {
        json document = story(level, {"backup", "--level", level});
        std::string text = document.dump();
        for (const json& set : {document["set"], document.value("owed", document)["set"]})
            for (const std::string& name : databases(set)) {
                m_saved[name] = m_live.contains(name) ? m_live[name] : json();
                m_changed.erase(name);
            }
        for (const std::string& name : level == "incr" ? std::set<std::string>() : m_changed)
            EXPECT_THAT(text, HasSubstr(name));
        EXPECT_EQ(document["failed"].empty(), document["exit_code"] == 0) << text;
        return document;
    }
    void change(const std::string& name, const std::string& words = "put") {
        std::string verb = words.substr(0, words.find(' '));
        ASSERT_EQ(domino(verb + " " + m_server + " " + name + words.substr(verb.size())), 0);
        m_live[name] = shown(name)["digest"];
        m_changed.insert(name);
    }
    json note_ids(const std::string& name) const {
        EXPECT_EQ(domino("show " + m_server + " " + name + " --json --ids"), 0);
        return json::parse(test::read_file(m_scratch / "domino-sim.out"))["noteIds"];
    }
    bool is_in(const std::string& mood) const {
        return ("," + std::string(GetParam()) + ",").find("," + mood + ",") != std::string::npos;
    }
    // Every extent that left the server is in the store.
    void check_extents() const {
        std::set<std::uint64_t> stored;
        for (const json& set : list())
            for (const ManifestItem& item : manifest(set["set"]).items)
                if (item.log && !item.log->active && item.status == ItemStatus::stored)
                    stored.insert(item.log->number);
        for (int number = 1; number < extents().front(); ++number)
            EXPECT_THAT(stored, Contains(number));
    }

    std::map<std::string, json> m_live;  // digests of what users have
    std::map<std::string, json> m_saved; // of the newest copies
    std::set<std::string> m_changed;     // since the last backup that has them
};
INSTANTIATE_TEST_SUITE_P(Table, Moods, testing::ValuesIn(moods()));

TEST_P(Moods, AllStoriesLoseNothingAndTellNothingThatIsNotSo) {
    for (const char* name : {"names.nsf", "mail/user1.nsf", "mail/user2.nsf"})
        change(name);
    backup_story("full");
    settle();
    fill_extents(2);
    change("mail/user1.nsf");
    ASSERT_EQ(domino("create " + m_server + " new.nsf --unlogged"), 0);
    change("new.nsf");
    // Of a run that was killed.
    test::write_file(m_server + "/state/archiving.json", R"({"process": 99999999, "began": 0})");
    backup_story("incr");
    EXPECT_TRUE(m_saved.contains("new.nsf"));
    change("mail/user2.nsf");
    change("new.nsf");
    backup_story("diff");

    json ids = note_ids("mail/user1.nsf");
    change("mail/user1.nsf", "delete " + ids[0].dump());
    if (!is_in("zone"))
        m_live.erase("mail/user1.nsf"); // until the document is back
    story("documents", {"documents", "deleted", "--since", "2020-01-01 00:00", "mail/user1.nsf"});
    EXPECT_EQ(note_ids("mail/user1.nsf") == ids, !is_in("zone"));
    m_live["mail/user1.nsf"] = shown("mail/user1.nsf")["digest"];
    change("mail/user2.nsf");
    m_live["mail/user2.nsf"] = m_saved["mail/user2.nsf"];
    story("restore", {"restore", "--activate", "mail/user2.nsf"});
    change("names.nsf");
    ASSERT_EQ(domino("lose " + m_server + " names.nsf"), 0);
    story("recover", {"recover", "names.nsf"});
    story("prove", {"prove"});
}

} // namespace
} // namespace qrtln

#endif
