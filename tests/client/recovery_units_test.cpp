// Which logs a recovery needs, and the journal of one, without a server.
#include "client/error.h"
#include "client/recovery_instances.h"
#include "client/recovery_journal.h"
#include "client/recovery_logs.h"
#include "client/recovery_plan.h"
#include "tests/client/run_client.h"

#include <gmock/gmock.h>
#include <sstream>

namespace qrtln {
namespace {

using testing::HasSubstr;

constexpr std::int64_t second = 1'000'000'000;

// "A1 A2* B3! bB1": sets and their logs; "*" was active, "!" is damaged, "b" is of another archive.
// The last change of a log is at 100 seconds times its number.
std::vector<StoredLog> stored_logs(const std::string& text) {
    std::vector<StoredLog> logs;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const bool other = word.starts_with('b');
        const std::string number = word.substr(other ? 2 : 1);
        StoredLog& log = logs.emplace_back();
        log.set = word[other ? 1 : 0];
        log.item.path = "/logs/S000000" + number.substr(0, 1) + ".TXN";
        log.item.has_metadata = true;
        log.item.mtime_ns = std::stoi(number) * 100 * second + 7;
        log.item.log = LogIdentity{static_cast<std::uint32_t>(std::stoul(number)),
                                   other ? "bbbbbbbb" : "aaaaaaaa", word.ends_with('*')};
        log.damaged = word.ends_with('!');
    }
    return logs;
}

TEST(RecoveryLogs, AreThoseThatTheSetsNeedAndTheServerHasNot) {
    const char* const chain = "A1 A2* B2 B3 B4*";
    const struct {
        const char* title;
        const char* stored;
        std::vector<std::uint32_t> server; // empty: its folder is lost
        std::string oldest_set;
        std::int64_t to;      // -1: the end
        const char* expected; // first and last, then those to restore, or the gap and the moment
    } cases[] = {
        {"from the set's first log on", chain, {4, 5}, "A", -1, "1-5: 1 2 3"},
        {"a newer set needs fewer", chain, {4, 5}, "B", -1, "2-5: 2 3"},
        {"no logs: from what was written when it was made", chain, {4}, "AA", -1, "2-4: 2 3"},
        {"a set before all logs", chain, {4}, "0", -1, "1-4: 1 2 3"},
        {"up to the log that goes beyond the time", chain, {4, 5}, "A", 150, "1-2: 1 2"},
        {"a change within that second may be in the next", chain, {4, 5}, "A", 200, "1-3: 1 2 3"},
        {"folder lost: the partial copy of the last counts", chain, {}, "A", -1, "1-4: 1 2 3 4"},
        {"a partial copy in the middle", "A1 A2* B3", {3}, "A", -1, "1-: no 2 to 2, until 98"},
        {"a gap of two", "A1 B4", {4, 5}, "A", -1, "1-: no 2 to 3, until 98"},
        {"a gap behind the time does no harm", "A1 A2 B4", {4}, "A", 150, "1-2: 1 2"},
        {"a damaged first log is missing", "A1! A2 A3", {3}, "A", -1, "1-: no 1 to 1"},
        {"a damaged log that the server has does no harm", "A1 A2!", {2}, "A", -1, "1-2: 1"},
        {"only the newest log of the server counts", "bA1 bA2 B1 B2", {2}, "B", -1, "1-2: 1"},
        {"the server began another log since", chain, {1, 2}, "A", -1, "1-: no 0 to 0"},
    };
    for (const auto& c : cases) {
        ServerLogs server{"/logs", c.server.empty(), false, {}};
        for (std::uint32_t number : c.server)
            server.last_used[number] = number * 100 * second;
        RecoveryLogs found =
            find_recovery_logs({stored_logs(c.stored), std::nullopt}, server,
                               {c.oldest_set, c.to < 0 ? std::nullopt : std::optional(c.to)});
        std::ostringstream got;
        got << found.first << "-";
        if (found.missing) {
            got << ": no " << found.missing->first << " to " << found.missing->last;
            if (found.missing->reachable)
                got << ", until " << *found.missing->reachable;
        } else {
            got << found.last << ":";
            for (const StoredLog& restored : found.restore)
                got << (restored.item.log->archive_id == "aaaaaaaa" ? " " : " b")
                    << restored.item.log->number;
        }
        EXPECT_EQ(got.str(), c.expected) << c.title;
    }
}

TEST(RecoveryLogs, AFolderThatIsEmptyIsLostAndOneThatCannotBeReadIsAnError) {
    test::ScratchFolder scratch;
    EXPECT_TRUE(look_at_server_logs(scratch / "none").missing);
    EXPECT_TRUE(look_at_server_logs(scratch.path()).missing);
    test::write_file(scratch / "nlogctrl.lfh", "");
    EXPECT_FALSE(look_at_server_logs(scratch.path()).missing);
    test::write_file(scratch / "S0000012.TXN", "");
    test::write_file(scratch / "S00000x2.TXN", "");
    EXPECT_EQ(look_at_server_logs(scratch.path()).last_used.size(), 1U);
    EXPECT_THROW(look_at_server_logs(scratch / "S0000012.TXN"), ClientError);
}

TEST(RecoveryInstances, AMomentIsDoubtfulFromTheLastProofOfTheInstanceOn) {
    using State = LiveDatabase::State;
    const std::vector<SavedCopy> same = {{"A", "", "x", 100}, {"B", "", "x", 200}};
    const std::vector<SavedCopy> other = {
        {"A", "", "x", 100}, {"B", "", "x", 200}, {"C", "", "y", 300}, {"D", "", "x", 400}};
    const std::vector<SavedCopy> untold = {{"A", "", "", 0}, {"B", "", "x", 200}};
    const LiveDatabase live_x{State::logged, "x", ""};
    const LiveDatabase live_y{State::logged, "y", ""};
    const LiveDatabase broken{State::unopenable, "", "no"};
    const std::tuple<const std::vector<SavedCopy>&, std::int64_t, const LiveDatabase*, bool,
                     const char*>
        cases[] = {{same, 500, &live_x, false, ""},
                   {same, 199, &live_y, true, ""},
                   {same, 200, &live_y, false, "live database"},
                   {same, 500, &broken, false, ""},
                   {same, 500, nullptr, true, "since the set B"},
                   {other, 199, nullptr, false, ""},
                   {other, 250, &live_x, false, "between the sets B and C"},
                   {other, 350, &live_x, false, "between the sets B and C"},
                   {untold, 150, &live_x, false, "does not tell"}};
    for (const auto& [copies, moment, live, restored, text] : cases) {
        std::string doubt = reason_for_doubt(copies, "A", moment, live, restored);
        EXPECT_EQ(doubt.empty(), *text == '\0') << moment << text;
        EXPECT_THAT(doubt, HasSubstr(text));
    }
}

TEST(RecoveryPlan, PromisesNoEndOfLogsThatAreMissing) {
    RecoveryPlan plan;
    plan.databases.emplace_back();
    plan.logs.missing = MissingLogs{2, 2, {}, {}, {}};
    EXPECT_THAT(plan_text(plan), testing::Not(HasSubstr("the end of the logs")));
}

TEST(RecoveryJournal, KeepsEveryNameAndFindsEachChangedByte) {
    test::ScratchFolder scratch;
    RecoveryJournalFile file(scratch / "recovery.json");
    EXPECT_FALSE(file.read());
    RecoveryJournal journal;
    journal.data_directory = "/data\xFF";
    journal.names = {"a\xE4\n.nsf", "mail"};
    journal.to = -1;
    journal.pending_folder = "/tmp/qrtln-recovery_x\xFE";
    journal.recovering = journal.log_folder_lost = true;
    journal.logs_end = 5;
    journal.databases = {
        {"/data\xFF/a]\xE4.nsf", "/tmp/\xE4", "/tmp/1", FileState{true, 1, 2, -3}, true, false},
        {.path = "/b.nsf", .copy = "", .owed = true}};
    journal.done = {{"/c\xE4.nsf", "short", "20261121T024923Z-full"}};
    journal.extents = {{"/logs/S0000001.TXN", "abc"}};
    file.write(journal);
    const std::string bytes = test::read_file(scratch / "recovery.json");
    const RecoveryJournal back = file.read().value();
    EXPECT_EQ(back.names, journal.names);
    EXPECT_EQ(back.to, journal.to);
    EXPECT_EQ(back.pending_folder, journal.pending_folder);
    EXPECT_EQ(back.extents, journal.extents);
    EXPECT_EQ(back.logs_end, journal.logs_end);
    EXPECT_TRUE(back.recovering && back.log_folder_lost && !back.all && !back.new_dbiid);
    EXPECT_EQ(back.databases.at(0).path, journal.databases[0].path);
    EXPECT_EQ(back.databases[0].before, journal.databases[0].before);
    EXPECT_EQ(back.databases[0].link, journal.databases[0].link);
    EXPECT_TRUE(back.databases[0].lost && back.databases.at(1).owed);
    EXPECT_EQ(back.done_of("/c\xE4.nsf")->shortfall, "short");
    EXPECT_EQ(back.done_of("/c\xE4.nsf")->set, "20261121T024923Z-full");
    file.write(back);
    EXPECT_EQ(test::read_file(scratch / "recovery.json"), bytes);

    for (std::size_t i = 0; i < bytes.size(); i += 7) {
        std::string damaged = bytes;
        damaged[i] ^= 1;
        test::write_file(scratch / "recovery.json", damaged);
        EXPECT_THROW((void)file.read(), ClientError) << i;
    }
    file.remove();
    file.remove(); // again after a crash
    EXPECT_FALSE(file.read());
}

} // namespace
} // namespace qrtln
