// Every story of the client over a simulated server in each of its moods.
#include "tests/client/simulated_server.h"

namespace qrtln::test {
namespace {

constexpr const char* caffe = "mail/caff\xC3\xA8.nsf";

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
const auto moods_end = std::getenv("QRTLN_LONG_TESTS") != nullptr ? moods.end() : moods.begin() + 2;

class Moods : public OverTheSimulator, public testing::WithParamInterface<const char*> {
  protected:
    Moods() {
        init("--strict '" + std::string(GetParam()) + "'" +
             (is_in("logs") ? " --first-log 4294967294" : ""));
        domino("create", caffe);
    }
    bool is_in(const std::string& mood) const {
        const std::string all = std::string(",") + GetParam() + ",";
        return mood.empty() || all == ",all," || all.find("," + mood + ",") != std::string::npos;
    }
    // Runs the words of a story, and looks at what must hold after each.
    json story(const std::string& name, const Words& words) {
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
        return document;
    }
    void change(const std::string& name) {
        put(name);
        m_live[name] = digest(name);
    }

    std::map<std::string, std::string> m_live; // digests of what users have
};
INSTANTIATE_TEST_SUITE_P(Table, Moods, testing::ValuesIn(moods.begin(), moods_end));

TEST_P(Moods, AllStoriesLoseNothingAndTellNothingThatIsNotSo) {
    for (const char* name : {"names.nsf", "mail/user1.nsf", "mail/user2.nsf", caffe})
        change(name);
    EXPECT_THAT(databases(story("full", {"backup"})["set"]), SizeIs(7));
    if (is_in("session"))
        story("full in a session", {"backup", "--log-session"});
    settle();
    fill_extents(2);
    change("mail/user1.nsf");
    domino("create", "new.nsf --unlogged");
    change("new.nsf");
    write_file(m_server + "/state/archiving.json", // of a run that was killed
               R"({"process": 99999999, "began": 0})");
    story("incr", {"backup", "--level", "incr"});
    auto saved = m_live; // by the last backup that took what changed
    change("mail/user2.nsf");
    change("new.nsf");
    const json diff = story("diff", {"backup", "--level", "diff"});
    for (const char* name : {"user1.nsf", "user2.nsf", "new.nsf"}) // it has them, or names them
        EXPECT_THAT(diff["failed"].dump() + testing::PrintToString(databases(diff["set"])),
                    HasSubstr(name));
    if (!is_in("zone"))
        saved = m_live;
    const json ids = shown("mail/user1.nsf --ids")["noteIds"];
    domino("delete", "mail/user1.nsf " + ids[0].dump());
    m_live.erase("mail/user1.nsf"); // until the document is back
    story("documents", {"documents", "deleted", "--since", "2020-01-01 00:00", "mail/user1.nsf"});
    EXPECT_EQ(shown("mail/user1.nsf --ids")["noteIds"] == ids, !is_in("zone"));
    m_live["mail/user1.nsf"] = digest("mail/user1.nsf");
    change("mail/user2.nsf");
    m_live["mail/user2.nsf"] = saved["mail/user2.nsf"];
    story("restore", {"restore", "--activate", "mail/user2.nsf"});
    change("names.nsf");
    domino("lose", "names.nsf");
    const auto logs = extents();
    story("recover", {"recover", "names.nsf"});
    story("prove", {"prove"});
    EXPECT_EQ(extents(), logs); // what was put back is gone
    story("last incr", {"backup", "--level", "incr"});
    m_live["new.nsf"] = saved["new.nsf"]; // is in no log
    domino("lose", "--data --logs");
    story("recover --all", {"recover", "--all"});
    story("first full", {"backup", "--log-session"});
}

} // namespace
} // namespace qrtln::test
