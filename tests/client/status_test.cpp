// The ledger of recoverability: what histories come to, and that a recovery agrees.
#include "client/base/process_note.h"
#include "client/base/text.h"
#include "tests/client/simulated_server.h"

#include <functional>
#include <sys/stat.h>

namespace qrtln::test {
namespace {

class Status : public OverTheSimulator {
  protected:
    json status(int exit_code, Words words = {}) {
        words.insert(words.begin(), {"status", "--json"});
        const Outcome outcome = on_store(words);
        m_errors = outcome.errors;
        EXPECT_EQ(outcome.exit_code, exit_code)
            << testing::PrintToString(words) << outcome.output << outcome.errors;
        return outcome.document();
    }
    static json of(const json& document, const std::string& name) {
        for (const json& server : document["servers"])
            for (const json& database : server["databases"])
                if (database["database"] == name)
                    return database;
        return {{"state", "not told"}};
    }
    std::string set(const std::string& level, int exit_code = 0) {
        return backup(exit_code, level)["set"];
    }
    std::string with_new_extents(int exit_code = 0) {
        fill_extents(2);
        return set("incr", exit_code);
    }
    void lose_a_log_of(const std::string& set) {
        fs::remove(object_file(set, m_server + "/logs/S0000002.TXN"));
    }
    static void damage(const std::string& file) { std::ofstream(file, std::ios::app) << " "; }
};

TEST_F(Status, EachHistoryHasItsStateItsExitCodeAndWhatToDo) {
    struct Case {
        const char* title;
        std::function<Words()> happens; // more words for the command
        int exit_code;
        const char* state; // of mail/user1.nsf
        const char* says;  // in the document
    };
    const std::string ini = m_server + "/notes.ini";
    const Case cases[] = {
        {"nothing", [] { return Words(); }, 10, "", ""},
        {"a full set",
         [&] {
             return set("full"), Words{"--max-age", "1h"};
         },
         0, "recoverable", "everything is recoverable: 6 databases"},
        {"a log of the chain is lost",
         [&] { return set("full"), lose_a_log_of(with_new_extents()), Words(); }, 16, "gap",
         "take a full backup"},
        {"a full backup after that",
         [&] {
             set("full");
             lose_a_log_of(with_new_extents());
             return settle(), set("full"), Words();
         },
         0, "recoverable", "the transaction log 2 is missing"},
        {"the server began a new log",
         [&] {
             set("full");
             domino("lose", "--logs");
             return put("mail/user2.nsf"), set("incr", 16), Words();
         },
         16, "recoverable", "the server began a new transaction log"},
        {"compacted between the sets",
         [&] {
             set("full");
             settle(), settle(), domino("compact", "mail/user1.nsf");
             return set("incr"), Words();
         },
         0, "recoverable", "it became another instance"},
        {"the newest copy is damaged, and an older leads to the same end",
         [&] {
             set("full");
             put("mail/user1.nsf");
             flip(set("full"), m_user1);
             return verify(), Words();
         },
         0, "recoverable", "is taken, with more logs"},
        {"the only copy is damaged", [&] { return flip(set("full"), m_user1), verify(), Words(); },
         4, "damaged", "there is no older one"},
        {"a manifest is damaged",
         [&] {
             set("full");
             damage(m_store + "/sets/" + set("incr") + ".json");
             return Words();
         },
         4, "recoverable", "the manifest of the set"},
        {"a set is missing",
         [&] {
             const std::string first = set("full");
             set("incr");
             fs::remove(m_store + "/sets/" + first + ".json");
             return Words();
         },
         4, "not told", "is missing"},
        {"a set was forgotten",
         [&] {
             const std::string first = set("full");
             set("full");
             on_store({"forget", first});
             return Words();
         },
         0, "recoverable", ""},
        {"deleted before the newest full set",
         [&] { return set("full"), domino("lose", "mail/user1.nsf"), set("full"), Words(); }, 0,
         "deleted", "does not have it"},
        {"deleted since",
         [&] {
             set("full");
             domino("lose", "mail/user1.nsf");
             return Words{"--notes-ini", ini};
         },
         0, "deleted", "it is not on the server any more"},
        {"restored and not saved since",
         [&] {
             set("full");
             run(0, {"restore", "mail/user1.nsf", "--activate"});
             return Words();
         },
         3, "restored", "take a backup"},
        {"a database that no set has",
         [&] {
             set("full");
             domino("create", "mail/new.nsf");
             return Words{"--notes-ini", ini};
         },
         3, "recoverable", "1 database never saved: mail/new.nsf"},
        {"older than it may be",
         [&] {
             return set("full"), settle(), settle(), settle(), Words{"--max-age", "1s"};
         },
         3, "too old", "older than --max-age"},
        {"one server of none",
         [&] {
             return set("full"), Words{"--server", "other"};
         },
         13, "", "no set of the server other"},
        {"no length of time",
         [&] {
             return set("full"), Words{"--max-age", "1 h"};
         },
         2, "", "36h or 7d"},
    };
    for (const Case& history : cases) {
        SCOPED_TRACE(history.title);
        fs::remove_all(m_store);
        init("");
        const json told = status(history.exit_code, history.happens());
        if (*history.state != '\0')
            EXPECT_EQ(of(told, "mail/user1.nsf")["state"], history.state) << told.dump(1);
        EXPECT_THAT(told.dump(), HasSubstr(history.says));
    }
}

// With the server's own logs lost, as the ledger has it.
TEST_F(Status, ARecoveryReachesJustTheMomentsThatItTells) {
    domino("create", "mail/unlogged.nsf --unlogged");
    set("full");
    put("mail/user2.nsf");
    settle();
    settle();
    domino("compact", "mail/user1.nsf");
    with_new_extents();
    settle();
    put("mail/user1.nsf");
    with_new_extents();
    settle();
    set("diff"); // without logs
    settle();
    domino("lose", "--logs");
    const json told = status(0);
    EXPECT_EQ(of(told, "mail/unlogged.nsf")["follows_logs"], false);
    EXPECT_EQ(of(told, "mail/user1.nsf")["gaps"].size(), 1U); // behind its first instance
    std::size_t stretches = 0;
    for (const char* name : {"mail/user1.nsf", "mail/user2.nsf"})
        for (const json& window : json(of(told, name)["recoverable"])) {
            if (!window["any_moment"])
                continue;
            ++stretches;
            auto code = [&](const std::string& end, int seconds) {
                std::tm time{};
                ::strptime(std::string(window[end]).c_str(), "%Y-%m-%dT%H:%M:%SZ", &time);
                return run_client(
                           on_server({"recover", name, "--dry-run", "--into", m_scratch / "into",
                                      "--to", utc_time(::timegm(&time) + seconds)}))
                    .exit_code;
            };
            EXPECT_EQ(code("from", 0), 0) << name << window;
            EXPECT_NE(code("from", -1), 0) << name << window;
            EXPECT_EQ(code("to", 0), 0) << name << window;
            EXPECT_NE(code("to", 1), 0) << name << window;
        }
    EXPECT_GE(stretches, 2U);
}

TEST_F(Status, MetricsAndPageAreReplacedAsAWholeOrNotAtAll) {
    set("full");
    const std::string metrics = m_scratch / "qrtln.prom";
    const std::string page = m_scratch / "page.html";
    const Words both = {"--metrics", metrics, "--html", page};
    write_file(metrics, "old");
    fs::create_hard_link(metrics, m_scratch / "old");
    status(0, both);
    EXPECT_EQ(read_file(m_scratch / "old"), "old");
    struct stat now {};
    ASSERT_EQ(::stat(metrics.c_str(), &now), 0);
    EXPECT_EQ(now.st_mode & 07777, 0644U);
    const std::string written = read_file(metrics);
    EXPECT_THAT(written, AllOf(HasSubstr("# TYPE qrtln_ledger_timestamp_seconds gauge\n"),
                               HasSubstr("qrtln_ledger_fine 1\n"),
                               HasSubstr(",database=\"mail/user1.nsf\"} ")));
    for (const Words& refused :
         {Words{"--metrics", m_scratch.path()}, Words{"--html", m_store + "/page.html"},
          Words{"--metrics", m_scratch / "none/file"}}) {
        status(1, refused);
        EXPECT_THAT(m_errors, HasSubstr("cannot write --"));
    }
    fs::rename(m_store, m_scratch / "elsewhere");
    status(10, both);
    EXPECT_EQ(read_file(metrics), written);
    EXPECT_THAT(read_file(page), HasSubstr("everything is recoverable"));
}

TEST_F(Status, OfSeveralStoresAllIsToldAtOnceAlsoWhereOneIsAway) {
    set("full");
    const std::string copy = m_scratch / "copy", away = m_scratch / "away";
    const std::string metrics = m_scratch / "qrtln.prom";
    EXPECT_EQ(run_client({"copy", "--from", m_store, "--to", copy}).exit_code, 0);
    const json both = status(0, {"--store", copy, "--metrics", metrics});
    EXPECT_THAT(both["servers"], SizeIs(2));
    EXPECT_EQ(both["servers"][0]["store"], copy);
    EXPECT_THAT(read_file(metrics), AllOf(HasSubstr("{store=\"" + copy + "\",server="),
                                          HasSubstr("{store=\"" + m_store + "\",server=")));
    const json with_failure = status(10, {"--store", away, "--server", host_name()});
    EXPECT_THAT(with_failure["servers"], SizeIs(1));
    EXPECT_EQ(with_failure["findings"][0]["store"], away);
    status(13, {"--store", copy, "--server", "nobody"});
    status(2, {"--store", copy, "--notes-ini", m_server + "/notes.ini"});
}

} // namespace
} // namespace qrtln::test
