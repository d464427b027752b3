// What a chain of sets rests on: its logs, the time of its base, and the list of owed databases.

#include "client/error.h"
#include "client/log_chain.h"
#include "client/module_log.h"
#include "client/owed.h"
#include "client/since_time.h"
#include "tests/client/run_client.h"

#include <cstdlib>
#include <gmock/gmock.h>

namespace qrtln {
namespace {

using test::read_file;
using test::write_file;
using testing::ElementsAre;
using testing::HasSubstr;

// "3 4 5*" are the logs 3 to 5, the last one active; "b9" belongs to another archive, "x9" and "y9"
// to two whose folded identities are the same; a set of an earlier release knows no others.
std::vector<LogIdentity> logs(const std::string& text) {
    std::vector<LogIdentity> result;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        bool other = word.starts_with('b');
        bool whole = word.starts_with('x') || word.starts_with('y');
        result.push_back({static_cast<std::uint32_t>(std::stoul(word.substr(other || whole))),
                          other ? "0000000b" : "0000000a", word.ends_with('*'),
                          whole ? word.substr(0, 1) : ""});
    }
    return result;
}

TEST(LogChain, GapsAreNamedWithTheirNumbersAndSets) {
    const struct {
        std::vector<const char*> sets; // their names are A, B, C
        std::vector<const char*> gaps;
    } cases[] = {
        {{"1 2 3*"}, {}},
        {{"1 2 3*", "3*", "3 4 5*"}, {}}, // still active, then full
        {{"1 2 3*", "1 2 3 4*"}, {}},     // again after a failed set
        {{"1 2", "3*"}, {}},              // no active log
        {{"1 2*", "2 3*", "1 2 3 4"}, {}},
        {{"1 2*", "", "2 3*"}, {}}, // no logs, no gap
        {{"1 2 3*", "4 5*"}, {"the transaction log 3 is missing between the sets A and B"}},
        {{"1 2*", "2 3*", "6 7*"},
         {"the transaction logs 3 to 5 are missing between the sets B and C"}},
        {{"1 2*", "2*", "3*"}, {"the transaction log 2 is missing between the sets B and C"}},
        {{"1 4 5*"}, {"the transaction logs 2 to 3 are missing in the set A"}},
        {{"1 3*", "2 3*"}, {}}, // the second brings what the first lacked
        {{"1 2* 3*"}, {}},      // filled up meanwhile: the server has 2
        {{"1 2* 3*", "3 4*"}, {"the transaction log 2 is missing in the set A"}},
        {{"1 2*", "b1 b2*"},
         {"the server began a new transaction log (archive identity 0000000a became 0000000b), "
          "between the sets A and B"}},
        {{"", "5 6*"},
         {"the set that the chain begins with holds no transaction logs, between the sets A and "
          "B"}},
        {{"4294967294 4294967295", "4294967295*"}, {}},
        {{"4294967294 4294967295*", "4294967295 0 1*", "1 2*"}, {}}, // numbers wrap
        {{"4294967294 4294967295*", "1 2*"},
         {"the transaction logs 4294967295 to 0 are missing between the sets A and B"}},
        {{"4294967295* 0*"}, {}},
        {{"1 2*", "x2 x3*"}, {}},
        {{"x1 x2*", "y1 y2*"},
         {"the server began a new transaction log (archive identity x became y), between the sets "
          "A and B"}},
        {{}, {}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.sets));
        std::vector<ChainLink> chain;
        for (const char* set : test.sets)
            chain.push_back({std::string(1, static_cast<char>('A' + chain.size())), logs(set)});
        std::vector<std::string> found;
        for (const LogGap& gap : find_log_gaps(chain))
            found.push_back(describe(gap));
        EXPECT_EQ(found, std::vector<std::string>(test.gaps.begin(), test.gaps.end()));
    }
}

TEST(SinceTime, IsNeverReadAsLaterThanTheStart) {
    const struct {
        const char* zone;
        std::time_t start;
        const char* text;
    } cases[] = {
        {"UTC0", 1709647629, "20240305140709"},
        {"CET-1CEST,M3.5.0,M10.5.0/3", 1720000000, "20240703114640"},
        // 2024-10-27: 02:30 summer time, then 02:30 winter time; 01:59:59 and 03:00 are clear.
        {"CET-1CEST,M3.5.0,M10.5.0/3", 1729987199, "20241027015959"},
        {"CET-1CEST,M3.5.0,M10.5.0/3", 1729989000, "20241027014500"},
        {"CET-1CEST,M3.5.0,M10.5.0/3", 1729992600, "20241027023000"},
        {"CET-1CEST,M3.5.0,M10.5.0/3", 1729994400, "20241027030000"},
        // The hour that was skipped in spring never was a local time.
        {"CET-1CEST,M3.5.0,M10.5.0/3", 1711846800, "20240331030000"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.text);
        ::setenv("TZ", test.zone, 1);
        std::string text = since_time_text(test.start);
        EXPECT_EQ(text, test.text);
        for (int daylight : {-1, 0, 1}) {
            std::tm local{};
            ASSERT_NE(::strptime(text.c_str(), "%Y%m%d%H%M%S", &local), nullptr);
            local.tm_isdst = daylight;
            std::time_t read = std::mktime(&local);
            std::tm again{};
            ::localtime_r(&read, &again);
            if (daylight < 0 || again.tm_isdst == daylight) { // else that reading does not exist
                EXPECT_LE(read, test.start);
            }
        }
    }
    ::unsetenv("TZ");
    ::tzset();
    EXPECT_THROW(since_time_text(std::time_t{1} << 60), ClientError);
}

TEST(OwedDatabases, SurviveTheRunAndAHalfWrittenLine) {
    test::ScratchFolder scratch;
    std::string file = scratch / "owed.jsonl";
    std::string odd = "/data/gr\xFC\n.nsf";
    {
        OwedDatabases owed(file);
        EXPECT_FALSE(std::filesystem::exists(file));
        for (const std::string& path : {odd, std::string("/data/a.nsf"), odd})
            owed.add("/data", path);
        owed.add("/other", "/other/a.nsf");
    }
    std::string whole = read_file(file);
    std::size_t last = whole.rfind('\n', whole.size() - 2) + 1;
    for (std::size_t cut = last; cut < whole.size(); ++cut) {
        write_file(file, whole.substr(0, cut));
        OwedDatabases owed(file);
        ASSERT_THAT(owed.of("/data"), ElementsAre("/data/a.nsf", odd));
        ASSERT_THAT(owed.of("/other"), ElementsAre());
        ASSERT_EQ(read_file(file), whole.substr(0, last)); // the next line begins a line
    }
    OwedDatabases owed(file);
    owed.add("/other", "/other/a.nsf");
    EXPECT_EQ(read_file(file), whole);
    EXPECT_EQ(owed.strike("/data", {odd, "/data/never.nsf"}), 0);
    EXPECT_THAT(OwedDatabases(file).of("/data"), ElementsAre("/data/a.nsf"));
    EXPECT_EQ(owed.strike("/data", {"/data/a.nsf"}), 0);
    EXPECT_EQ(owed.strike("/other", {"/other/a.nsf"}), 0);
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(OwedDatabases, DamageIsAnErrorThatSaysWhatToDo) {
    test::ScratchFolder scratch;
    std::string file = scratch / "owed.jsonl";
    OwedDatabases(file).add("/data", "/data/a.nsf");
    std::string line = read_file(file);
    std::string changed = line;
    changed[changed.find("a.nsf")] = 'b';
    for (const std::string& content :
         {changed, line + changed, line + "\n", std::string("[]\n"), std::string("{}\n"),
          std::string("{\"path\":1,\"data_directory\":[],\"checksum\":{}}\n"),
          std::string("{\"data_directory\":\"/d\",\"path\":\"\",\"path_hex\":\"zz\"}\n"),
          std::string(100'000, '[') + "\n", std::string("\0\0\0\n", 4)}) {
        write_file(file, content);
        try {
            OwedDatabases damaged(file);
            ADD_FAILURE() << content.substr(0, 100);
        } catch (const ClientError& failure) {
            EXPECT_THAT(failure.what(), HasSubstr("is damaged"));
            EXPECT_THAT(failure.hint(), HasSubstr("--level full"));
        }
    }
}

TEST(ModuleLog, FoldersThatTheModuleLeavesOutAreHeard) {
    const struct {
        const char* line;
        const char* left_out; // path and reason
    } cases[] = {
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
    for (const auto& test : cases) {
        auto left_out = parse_left_out(test.line);
        EXPECT_EQ(left_out ? left_out->path + ": " + left_out->reason : "", test.left_out);
    }
}

} // namespace
} // namespace qrtln
