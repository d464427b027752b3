// Every story of the client over a simulated server in each of its moods.
#include "tests/client/simulated_server.h"

#include <set>

namespace qrtln::test {
namespace {

using testing::HasSubstr;

const std::string caffe = "mail/caff\xC3\xA8.nsf";

// What is not as on a server without moods, where every story ends with 0.
struct Departure {
    const char* mood;
    const char* story;
    int exit_code;
    const char* message;
};
constexpr Departure departures[] = {
    {"", "recover --all", 3, ""}, // nobody knows what was committed behind the stored logs
    {"session", "full", 3, "add --log-session"},
    {"ended", "incr", 0, "NSFEndArchivingLogs was called after NotesTerm, to end"},
    {"zone", "diff", 3, "TZ"},
    {"zone", "documents", 3, "TZ"},
    {"zone", "prove", 3, "TZ"}, // to the moment of the set's end
};

// QRTLN_LONG_TESTS=1 in the environment: each mood by itself, too.
constexpr const char* own_clock = "session,ended,flags,before,locale,logs";
const std::vector<const char*> moods = {"all",    own_clock, "",       "session", "ended", "flags",
                                        "locale", "zone",    "before", "foreign", "logs",  "slow"};
const auto last = std::getenv("QRTLN_LONG_TESTS") != nullptr ? moods.end() : moods.begin() + 2;

class Moods : public OverTheSimulator, public testing::WithParamInterface<const char*> {
  protected:
    Moods() {
        init("--strict '" + std::string(GetParam()) + "'" +
             (is_in("logs") ? " --first-log 4294967294" : ""));
        EXPECT_EQ(domino("create " + m_server + " " + caffe), 0);
    }
    // Runs the words of a story, and looks at what must hold after each.
    json story(const std::string& name, const std::vector<std::string>& words) {
        SCOPED_TRACE(name);
        Departure expected = {"", "", 0, ""};
        for (const Departure& departure : departures)
            if (is_in(departure.mood) && name == departure.story)
                expected = departure;
        const char* locale = is_in("locale") ? "C" : "C.UTF-8";
        json document =
            run(expected.exit_code, words, expected.message, {{"TZ", "AAA-9"}, {"LC_ALL", locale}});
        EXPECT_THAT(m_errors, Not(HasSubstr("process ends")));
        EXPECT_EQ(verify(), 0);
        for (const auto& [database, digest] : m_live)
            EXPECT_EQ(this->digest(database), digest) << database;
        check_extents();
        return document;
    }
    // A backup has, or names, what users changed since the last one.
    json backup_story(const std::string& level) {
        json document = story(level, {"backup", "--level", level});
        for (const std::string set : {document["set"], document.value("owed", document)["set"]})
            for (const std::string& name : databases(set)) {
                m_saved[name] = m_live.contains(name) ? m_live[name] : json();
                m_changed.erase(name);
            }
        for (const std::string& name : level == "incr" ? std::set<std::string>() : m_changed)
            EXPECT_THAT(document.dump(), HasSubstr(name));
        EXPECT_EQ(document["failed"].empty(), document["exit_code"] == 0) << document;
        return document;
    }
    void change(const std::string& name) {
        put(name);
        m_live[name] = digest(name);
        m_changed.insert(name);
    }
    bool is_in(const std::string& mood) const {
        const std::string all = std::string(",") + GetParam() + ",";
        return mood.empty() || all == ",all," || all.find("," + mood + ",") != std::string::npos;
    }
    // Every extent that left the server is in the store.
    void check_extents() const {
        std::set<std::uint32_t> known;
        for (const json& set : list())
            for (const ManifestItem& item : manifest(set["set"]).items)
                if (item.log && !item.log->active && item.status == ItemStatus::stored)
                    known.insert(static_cast<std::uint32_t>(item.log->number));
        ASSERT_EQ(domino("logs " + m_server + " --json"), 0);
        const json logs = json::parse(domino_said());
        for (const json& extent : logs["extents"])
            if (extent["state"] == "ready to archive")
                known.insert(extent["number"].get<std::uint32_t>());
        std::uint32_t number = is_in("logs") ? 4294967294 : 1;
        for (; number != logs["activeExtent"]; ++number)
            EXPECT_TRUE(known.contains(number)) << number;
    }

    std::map<std::string, json> m_live;  // digests of what users have
    std::map<std::string, json> m_saved; // of the newest copies
    std::set<std::string> m_changed;     // since the last backup that has them
};
INSTANTIATE_TEST_SUITE_P(Table, Moods, testing::ValuesIn(moods.begin(), last));

TEST_P(Moods, AllStoriesLoseNothingAndTellNothingThatIsNotSo) {
    for (const std::string name : {"names.nsf", "mail/user1.nsf", "mail/user2.nsf", caffe.c_str()})
        change(name);
    backup_story("full");
    if (is_in("session"))
        story("full in a session", {"backup", "--log-session"});
    settle();
    fill_extents(2);
    change("mail/user1.nsf");
    ASSERT_EQ(domino("create " + m_server + " new.nsf --unlogged"), 0);
    change("new.nsf");
    write_file(m_server + "/state/archiving.json", // of a run that was killed
               R"({"process": 99999999, "began": 0})");
    backup_story("incr");
    EXPECT_TRUE(m_saved.contains("new.nsf"));
    change("mail/user2.nsf");
    change("new.nsf");
    backup_story("diff");
    const json ids = shown("mail/user1.nsf --ids")["noteIds"];
    ASSERT_EQ(domino("delete " + m_server + " mail/user1.nsf " + ids[0].dump()), 0);
    m_live.erase("mail/user1.nsf"); // until the document is back
    story("documents", {"documents", "deleted", "--since", "2020-01-01 00:00", "mail/user1.nsf"});
    EXPECT_EQ(shown("mail/user1.nsf --ids")["noteIds"] == ids, !is_in("zone"));
    m_live["mail/user1.nsf"] = digest("mail/user1.nsf");
    change("mail/user2.nsf");
    m_live["mail/user2.nsf"] = m_saved["mail/user2.nsf"];
    story("restore", {"restore", "--activate", "mail/user2.nsf"});
    change("names.nsf");
    ASSERT_EQ(domino("lose " + m_server + " names.nsf"), 0);
    const auto logs = extents();
    story("recover", {"recover", "names.nsf"});
    story("prove", {"prove"});
    EXPECT_EQ(extents(), logs); // what was put back is gone
    story("last incr", {"backup", "--level", "incr"});
    m_live["new.nsf"] = m_saved["new.nsf"]; // is in no log
    ASSERT_EQ(domino("lose " + m_server + " --data --logs"), 0);
    story("recover --all", {"recover", "--all"});
    story("first full", {"backup", "--log-session"});
}

} // namespace
} // namespace qrtln::test
