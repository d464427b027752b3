// The chain of logs that sets hold, what a recovery needs of it, and what the module says of it.
#include "client/module/told.h"
#include "client/recovery/logs.h"
#include "client/sets/log_chain.h"
#include "client/sets/manifest.h"

#include <gtest/gtest.h>
#include <sstream>

namespace qrtln {
namespace {

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
        {"A1 A2 A3* B4 B5*", "the transaction log 3 is missing between the sets A and B"},
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
        {"A4294967294 A4294967295* B4294967295 B0 B1* C1 C2*", ""}, // numbers wrap
        {"A4294967294 A4294967295* B1 B2*",
         "the transaction logs 4294967295 to 0 are missing between the sets A and B"},
        {"A1 A2* xB2 xB3*", ""},
        {"xA1 xA2* yB1 yB2*",
         "the server began a new transaction log (archive identity x became y), between the sets "
         "A and B"},
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
    // Stored logs; those of the server, none where its folder is lost; the oldest set; up to when,
    // -1 for the end; first and last, then those to restore, or the gap and the moment.
    using Case = std::tuple<const char*, const char*, std::vector<std::uint32_t>, const char*,
                            std::int64_t, const char*>;
    const Case cases[] = {
        {"from the set's first log on", chain, {4, 5}, "A", -1, "1-5: 1 2 3"},
        {"no logs: from what was written when it was made", chain, {4}, "AA", -1, "2-4: 2 3"},
        {"a set before all logs", chain, {4}, "0", -1, "1-4: 1 2 3"},
        {"up to the log that goes beyond the time", chain, {4, 5}, "A", 150, "1-2: 1 2"},
        {"a change in that second may be in the next", chain, {4, 5}, "A", 200, "1-3: 1 2 3"},
        {"folder lost: the last one's partial copy counts", chain, {}, "A", -1, "1-4: 1 2 3 4"},
        {"a partial copy in the middle", "A1 A2* B3", {3}, "A", -1, "1-: no 2 to 2, until 98"},
        {"a gap behind the time does no harm", "A1 A2 B4", {4}, "A", 150, "1-2: 1 2"},
        {"a damaged first log is missing", "A1! A2 A3", {3}, "A", -1, "1-: no 1 to 1"},
        {"a damaged log that the server has does no harm", "A1 A2!", {2}, "A", -1, "1-2: 1"},
        {"only the newest log of the server counts", "bA1 bA2 B1 B2", {2}, "B", -1, "1-2: 1"},
        {"the server began another log since", chain, {1, 2}, "A", -1, "1-: no 0 to 0"},
    };
    for (const auto& [title, stored, numbers, oldest_set, to, expected] : cases) {
        ServerLogs server{"/logs", numbers.empty(), false, {}};
        for (std::uint32_t number : numbers)
            server.last_used[number] = number * 100 * second;
        const RecoveryLogs found =
            find_recovery_logs({stored_logs(stored), std::nullopt}, server,
                               {oldest_set, to < 0 ? std::nullopt : std::optional(to)});
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
        EXPECT_EQ(got.str(), expected) << title;
    }
}

TEST(ModuleLog, TellsLogsAndFoldersThatAreLeftOut) {
    auto active = parse_log_announcement(
        "Back up active archive ID ffffffff, Log number 4294967295, log path [/a]b/S.TXN]");
    ASSERT_TRUE(active);
    EXPECT_EQ(active->path, "/a]b/S.TXN");
    EXPECT_EQ(active->identity.number, 4294967295U);
    for (const char* other : {"Archive ID 1", "Archive ID 0a1b2c3d, Log number x, log path [/]",
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
        {"] cannot be read, its files are left out (13): x", ""},
    };
    for (const auto& [line, expected] : left_out) {
        const auto told = parse_left_out(line);
        EXPECT_EQ(told ? told->path + ": " + told->reason : "", expected);
    }
}

} // namespace
} // namespace qrtln
