// Which logs a recovery needs, and the journal of one, without a server.
#include "client/error.h"
#include "client/recovery_instances.h"
#include "client/recovery_journal.h"
#include "client/recovery_logs.h"
#include "tests/client/run_client.h"

#include <gmock/gmock.h>

namespace qrtln {
namespace {

using testing::ElementsAreArray;
using testing::HasSubstr;

constexpr std::int64_t second = 1'000'000'000;

// A log whose last change is at 100 seconds times its number.
StoredLog log(const std::string& set, std::uint32_t number, const std::string& what = "",
              const std::string& id = "aaaaaaaa") {
    StoredLog log;
    log.set = set;
    log.item.path = "/logs/S000000" + std::to_string(number) + ".TXN";
    log.item.has_metadata = true;
    log.item.mtime_ns = number * 100 * second + 7;
    log.item.log = LogIdentity{number, id, what == "active"};
    log.damaged = what == "damaged";
    return log;
}

struct Case {
    const char* title;
    std::vector<StoredLog> stored;
    std::vector<std::uint32_t> server; // empty: its folder is lost
    std::string oldest_set;
    std::optional<std::int64_t> to;
    std::uint32_t first, last;
    std::vector<std::uint32_t> restore;
    std::optional<std::pair<std::uint32_t, std::uint32_t>> missing;
    std::optional<std::int64_t> reachable;
};

TEST(RecoveryLogs, AreThoseThatTheSetsNeedAndTheServerHasNot) {
    const std::vector<StoredLog> chain = {log("A", 1), log("A", 2, "active"), log("B", 2),
                                          log("B", 3), log("B", 4, "active")};
    const std::optional<std::int64_t> none;
    const Case cases[] = {
        {"from the set's first log on", chain, {4, 5}, "A", none, 1, 5, {1, 2, 3}, {}, none},
        {"a newer set needs fewer", chain, {4, 5}, "B", none, 2, 5, {2, 3}, {}, none},
        {"a set without logs: from what was written when it was made",
         chain,
         {4},
         "AA",
         none,
         2,
         4,
         {2, 3},
         {},
         none},
        {"a set before all logs", chain, {4}, "0", none, 1, 4, {1, 2, 3}, {}, none},
        {"up to the log that goes beyond the time",
         chain,
         {4, 5},
         "A",
         150,
         1,
         2,
         {1, 2},
         {},
         none},
        {"a change within the second of the time may be in the next log",
         chain,
         {4, 5},
         "A",
         200,
         1,
         3,
         {1, 2, 3},
         {},
         none},
        {"the folder lost: the partial copy of the last log counts",
         chain,
         {},
         "A",
         none,
         1,
         4,
         {1, 2, 3, 4},
         {},
         none},
        {"a partial copy in the middle does not",
         {log("A", 1), log("A", 2, "active"), log("B", 3)},
         {3},
         "A",
         none,
         1,
         3,
         {},
         {{2, 2}},
         98},
        {"a gap of two", {log("A", 1), log("B", 4)}, {4, 5}, "A", none, 1, 5, {}, {{2, 3}}, 98},
        {"a gap behind the time does no harm",
         {log("A", 1), log("A", 2), log("B", 4)},
         {4},
         "A",
         150,
         1,
         2,
         {1, 2},
         {},
         none},
        {"a damaged first log is missing, not unneeded",
         {log("A", 1, "damaged"), log("A", 2), log("A", 3)},
         {3},
         "A",
         none,
         1,
         3,
         {},
         {{1, 1}},
         none},
        {"a damaged log that the server has does no harm",
         {log("A", 1), log("A", 2, "damaged")},
         {2},
         "A",
         none,
         1,
         2,
         {1},
         {},
         none},
        {"only the newest log of the server counts",
         {log("A", 1, "", "bbbbbbbb"), log("A", 2, "", "bbbbbbbb"), log("B", 1), log("B", 2)},
         {2},
         "B",
         none,
         1,
         2,
         {1},
         {},
         none},
        {"the server began another log since", chain, {1, 2}, "A", none, 1, 4, {}, {{0, 0}}, none},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.title);
        StoredLogs stored{c.stored, std::nullopt};
        ServerLogs server{"/logs", c.server.empty(), false, {}};
        for (std::uint32_t number : c.server)
            server.last_used[number] = number * 100 * second;
        RecoveryLogs found = find_recovery_logs(stored, server, {c.oldest_set, c.to});
        EXPECT_EQ(found.first, c.first);
        ASSERT_EQ(found.missing.has_value(), c.missing.has_value());
        if (c.missing) {
            EXPECT_EQ(std::pair(found.missing->first, found.missing->last), *c.missing);
            EXPECT_EQ(found.missing->reachable, c.reachable);
            continue;
        }
        EXPECT_EQ(found.last, c.last);
        std::vector<std::uint32_t> restore;
        for (const StoredLog& restored : found.restore) {
            restore.push_back(restored.item.log->number);
            EXPECT_EQ(restored.item.log->archive_id, "aaaaaaaa");
        }
        EXPECT_THAT(restore, ElementsAreArray(c.restore));
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
    journal.done = {{"/c\xE4.nsf", "short"}};
    journal.extents = {{"/logs/S0000001.TXN", "abc"}};
    file.write(journal);
    RecoveryJournal back = file.read().value();
    EXPECT_EQ(back.data_directory, journal.data_directory);
    EXPECT_EQ(back.names, journal.names);
    EXPECT_EQ(back.to, journal.to);
    EXPECT_EQ(back.pending_folder, journal.pending_folder);
    EXPECT_EQ(back.extents, journal.extents);
    EXPECT_TRUE(back.recovering && back.log_folder_lost && !back.all && !back.new_dbiid);
    EXPECT_EQ(back.logs_end, journal.logs_end);
    ASSERT_EQ(back.databases.size(), 2U);
    EXPECT_EQ(back.databases[0].path, journal.databases[0].path);
    EXPECT_EQ(back.databases[0].copy, journal.databases[0].copy);
    EXPECT_TRUE(back.databases[0].lost && !back.databases[1].lost);
    EXPECT_TRUE(back.databases[1].owed && !back.databases[0].owed);
    EXPECT_EQ(back.databases[0].before, journal.databases[0].before);
    EXPECT_EQ(back.databases[0].link, journal.databases[0].link);
    EXPECT_EQ(back.done_of("/c\xE4.nsf")->shortfall, "short");

    std::string bytes = test::read_file(scratch / "recovery.json");
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
