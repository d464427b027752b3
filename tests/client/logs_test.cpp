// The chain of logs that sets hold, what a recovery needs of it, and what the module says of it.
#include "client/log_chain.h"
#include "client/module_log.h"
#include "client/recovery_instances.h"
#include "client/recovery_logs.h"
#include "client/recovery_plan.h"

#include <gmock/gmock.h>
#include <sstream>

namespace qrtln {
namespace {

using testing::HasSubstr;

constexpr std::int64_t second = 1'000'000'000;

// "A1 A2* bA3! C" are sets with their logs, C without any. "*" was active, "!" is damaged; "b" is
// of another archive, "x" and "y" are of two whose folded identities are the same, while a set of
// an earlier release knows no others. The last change of a log is at 100 seconds times its number.
std::vector<StoredLog> stored_logs(const std::string& text) {
    std::vector<StoredLog> logs;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const char archive = std::islower(word[0]) ? word[0] : 'a';
        word.erase(0, archive == 'a' ? 0 : 1);
        StoredLog& log = logs.emplace_back();
        log.set = word[0];
        if (word.size() == 1)
            continue;
        const auto number = static_cast<std::uint32_t>(std::stoul(word.substr(1)));
        log.item.path = "/logs/S000000" + word.substr(1, 1) + ".TXN";
        log.item.has_metadata = true;
        log.item.mtime_ns = number * 100 * second + 7;
        log.item.log = LogIdentity{number, std::string(8, archive == 'b' ? 'b' : 'a'),
                                   word.ends_with('*'), std::string(archive > 'b', archive)};
        log.damaged = word.ends_with('!');
    }
    return logs;
}

TEST(LogChain, GapsAreNamedWithTheirNumbersAndSets) {
    const std::pair<const char*, const char*> cases[] = {
        {"A1 A2 A3*", ""},
        {"A1 A2 A3* B3* C3 C4 C5*", ""}, // still active, then full
        {"A1 A2 A3* B1 B2 B3 B4*", ""},  // again after a failed set
        {"A1 A2 B3*", ""},               // no active log
        {"A1 A2* B2 B3* C1 C2 C3 C4", ""},
        {"A1 A2* B C2 C3*", ""}, // no logs, no gap
        {"A1 A2 A3* B4 B5*", "the transaction log 3 is missing between the sets A and B"},
        {"A1 A2* B2 B3* C6 C7*",
         "the transaction logs 3 to 5 are missing between the sets B and C"},
        {"A1 A2* B2* C3*", "the transaction log 2 is missing between the sets B and C"},
        {"A1 A4 A5*", "the transaction logs 2 to 3 are missing in the set A"},
        {"A1 A3* B2 B3*", ""}, // the second brings what the first lacked
        {"A1 A2* A3*", ""},    // filled up meanwhile: the server has 2
        {"A1 A2* A3* B3 B4*", "the transaction log 2 is missing in the set A"},
        {"A1 A2* bB1 bB2*",
         "the server began a new transaction log (archive identity aaaaaaaa became bbbbbbbb), "
         "between the sets A and B"},
        {"A B5 B6*",
         "the set that the chain begins with holds no transaction logs, between the sets A and B"},
        {"A4294967294 A4294967295 B4294967295*", ""},
        {"A4294967294 A4294967295* B4294967295 B0 B1* C1 C2*", ""}, // numbers wrap
        {"A4294967294 A4294967295* B1 B2*",
         "the transaction logs 4294967295 to 0 are missing between the sets A and B"},
        {"A4294967295* A0*", ""},
        {"A1 A2* xB2 xB3*", ""},
        {"xA1 xA2* yB1 yB2*",
         "the server began a new transaction log (archive identity x became y), between the sets "
         "A and B"},
        {"", ""},
    };
    for (const auto& [logs, gap] : cases) {
        std::vector<ChainLink> chain;
        for (const StoredLog& log : stored_logs(logs)) {
            if (chain.empty() || chain.back().set != log.set)
                chain.push_back({log.set, {}});
            if (log.item.log)
                chain.back().logs.push_back(*log.item.log);
        }
        std::string found;
        for (const LogGap& one : find_log_gaps(chain))
            found += describe(one);
        EXPECT_EQ(found, gap) << logs;
    }
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
        const RecoveryLogs found =
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
        const std::string doubt = reason_for_doubt(copies, "A", moment, live, restored);
        EXPECT_EQ(doubt.empty(), *text == '\0') << moment << text;
        EXPECT_THAT(doubt, HasSubstr(text));
    }
}

TEST(ModuleLog, TellsLogsAndFoldersThatAreLeftOut) {
    auto active = parse_log_announcement(
        "Back up active archive ID ffffffff, Log number 4294967295, log path [/a]b/S.TXN]");
    ASSERT_TRUE(active);
    EXPECT_EQ(active->path, "/a]b/S.TXN");
    EXPECT_EQ(active->identity.number, 4294967295U);
    EXPECT_TRUE(active->identity.active);
    for (const char* other : {"", "Archive ID 1", "Archive ID 0a1b2c3d, Log number x, log path [/]",
                              "Archive ID 0a1b2c3d, Log number 1, log path [/l",
                              "Archive ID 0a1b2c3d, Log number 4294967296, log path [/l]"})
        EXPECT_FALSE(parse_log_announcement(other)) << other;
    const std::string whole = "Archive identity [0000000A-00000020 0000030000004000], Log number 7";
    EXPECT_EQ(parse_whole_identity(whole, 7), "0000000A-00000020 0000030000004000");
    EXPECT_EQ(parse_whole_identity(whole, 17) + parse_whole_identity(whole + "]", 7), "");
    const std::pair<const char*, const char*> left_out[] = {
        {"fillFileList(): directory [/d/] x] cannot be read, its files are left out (5): I/O error",
         "/d/] x: the module cannot read the folder, nothing below it was saved: I/O error"},
        {"getSubDirectories(): directory [/d/] could not be read to its end (5): I/O error",
         "/d: the module could not read the folder to its end: I/O error"},
        {"fillFileList(): closing directory [/d] failed, what follows it cannot be read (5): I/O",
         "/d: the module could not read on after it: I/O"},
        {"fillFileList(): directory [/d/lost+found] cannot be read, its files are left out (13): x",
         ""},
        {"Src Db: (): directory [/d] cannot be read, its files are left out (13): x", ""},
        {"] cannot be read, its files are left out (13): x", ""},
    };
    for (const auto& [line, expected] : left_out) {
        const auto told = parse_left_out(line);
        EXPECT_EQ(told ? told->path + ": " + told->reason : "", expected);
    }
}

} // namespace
} // namespace qrtln
