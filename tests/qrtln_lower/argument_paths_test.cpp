#include "qrt_lotus_notes/qrtln_u/argument_paths.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <utime.h>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "tests/support/message_capture.h"
#include "tests/support/temporary_folder.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

struct Destroy {
    void operator()(LIST_INFO* queue) const { DestroyFIFOList(queue); }
};
using Queue = std::unique_ptr<LIST_INFO, Destroy>;

Queue queueOf(const std::vector<std::string>& texts) {
    Queue queue(CreateFIFOList());
    for (const std::string& text : texts) {
        pushPath(queue.get(), text.c_str(), DB_BACKUP_FILE_TYPE_DB);
    }
    return queue;
}

std::vector<std::string> walk(LIST_INFO* queue) {
    std::vector<std::string> texts;
    char item[kPathSize];
    unsigned int size = 0;
    while (ListFIFOItem(queue, item, &size)) {
        texts.emplace_back(item);
    }
    return texts;
}

class DatabaseArgument : public testing::Test {
  protected:
    DatabaseArgument() {
        data.write("mail/a.nsf");
        data.write("mail/.hidden.ntf");
        data.makeDirectory("directory");
        root = data.path() + "/";
        copyText(g_sQRTLN_Global.szNotesDataDirectory, root.c_str());
    }
    ~DatabaseArgument() override { g_sQRTLN_Global.szNotesDataDirectory[0] = '\0'; }

    // The result for an argument after `before` was left in the buffer.
    std::string resolve(const std::string& arg, const std::string& before = "") {
        copyText(out, before.c_str());
        EXPECT_EQ(handleRelativeArguments(arg.c_str(), out), 0);
        return out;
    }

    TemporaryFolder data;
    std::string root;
    char out[kPathSize] = "";
    MessageCapture messages;
};

TEST_F(DatabaseArgument, NamesTheWholeSystemOrAPathBelowTheDataDirectory) {
    const std::pair<std::string, std::string> cases[] = {
        {"DATABASE=", "NOTES"},
        {"DATABASE", "NOTES"},
        {"", "NOTES"},
        {"DATABASE=all", "NOTES"},
        {"DATABASE=ALL", "NOTES"},
        {"DATABASE=notes", "NOTES"},
        {"Notes", "NOTES"},
        {"DATABASE:mail/a.nsf", root + "mail/a.nsf"},
        {"mail/a.nsf", root + "mail/a.nsf"},
        {"directory", root + "directory"},
        // Not there: kept for the selection to reject.
        {"DATABASE=none.nsf", root + "none.nsf"},
        // The data directory goes before an absolute path, too.
        {"DATABASE=/mail/a.nsf", root + "/mail/a.nsf"},
        {"DATABASE=/etc", root + "/etc"},
        // A pattern stays a pattern where something matches, else it is taken as given.
        {"DATABASE=mail/*.nsf", root + "mail/*.nsf"},
        {"DATABASE=mail/?.n*", root + "mail/?.n*"},
        {"DATABASE=mail/*.ncf", "mail/*.ncf"},
        {"DATABASE=mail/*.NSF", "mail/*.NSF"},
        {"DATABASE=mail/*.ntf", "mail/*.ntf"}, // only a hidden file, which "*" does not match
        {"DATABASE=mail/.*.ntf", root + "mail/.*.ntf"},
        {"DATABASE=directory/*", "directory/*"}, // "." and ".." are no match
        {"DATABASE=none/*.nsf", "none/*.nsf"},
        {"DATABASE=*/a.nsf", "*/a.nsf"}, // directories are literal
    };
    for (const auto& [arg, expected] : cases) {
        EXPECT_EQ(resolve(arg), expected) << arg;
    }
}

TEST_F(DatabaseArgument, FileNamedLikeAPatternIsTakenBeforeThePattern) {
    data.write("mail/*.x");
    EXPECT_EQ(resolve("mail/*.x"), root + "mail/*.x");
    EXPECT_THAT(messages.traces(),
                Contains("handleRelativeArguments(): Argument file is relative to LN DATA "
                         "directory"));
}

// The client's arguments come through one buffer: one that exists yields itself again and again.
TEST_F(DatabaseArgument, ExistingArgumentInTheBufferHidesThoseAfterItUntilTheWholeSystemIsNamed) {
    EXPECT_EQ(resolve("mail/a.nsf"), root + "mail/a.nsf");
    EXPECT_EQ(resolve("other.nsf", out), root + "mail/a.nsf");
    EXPECT_TRUE(messages.hasTrace("handleRelativeArguments(): Full database argument file path: [" +
                                  root + "mail/a.nsf]"));
    EXPECT_EQ(resolve("DATABASE=all", out), "NOTES");
    EXPECT_EQ(resolve("other.nsf", out), root + "other.nsf");
    EXPECT_EQ(resolve("mail/a.nsf", out), root + "mail/a.nsf");
    // A directory loses its trailing delimiter on the way.
    EXPECT_EQ(resolve("other.nsf", root + "directory/"), root + "directory");
    EXPECT_EQ(resolve("other.nsf", root + "none/"), root + "other.nsf");
    EXPECT_EQ(resolve("other.nsf", "/"), root + "other.nsf");
}

TEST_F(DatabaseArgument, PathThatDoesNotFitIsSkippedWithALineThatNamesIt) {
    const std::string longest(kPathSize - 1 - root.size(), 'x');
    EXPECT_EQ(resolve(longest), root + longest);
    EXPECT_TRUE(messages.logs().empty());
    EXPECT_EQ(resolve(longest + "y"), "");
    EXPECT_THAT(messages.logs(), ElementsAre(HasSubstr(root + longest + "y")));
}

TEST_F(DatabaseArgument, TracesSayWhyAPatternIsTakenAsGiven) {
    resolve("none/*.nsf");
    EXPECT_TRUE(messages.hasTrace("handleRelativeArguments(): opendir failed with errno [2]"));
    EXPECT_TRUE(messages.hasTrace("Could not find file " + root + "none/*.nsf"));
    messages.clear();
    resolve("mail/*.ncf");
    EXPECT_TRUE(messages.hasTrace("handleRelativeArguments(): File [" + root +
                                  "mail/*.ncf] is not accessible"));
    EXPECT_TRUE(messages.hasTrace("Could not find file " + root + "mail/*.ncf"));
}

TEST_F(DatabaseArgument, WithoutADataDirectoryTheValueStandsForItself) {
    g_sQRTLN_Global.szNotesDataDirectory[0] = '\0';
    EXPECT_EQ(resolve("DATABASE=" + root + "mail/a.nsf"), root + "mail/a.nsf");
    EXPECT_EQ(resolve("DATABASE=/*"), "/*");
    EXPECT_EQ(resolve("DATABASE=*.none"), "*.none");
}

TEST(PatternMatch, CoversSubdirectoriesAndAnEmptyListCoversAll) {
    const Queue none = queueOf({});
    EXPECT_EQ(ifMatchPattern("/d/a.nsf", nullptr), 1);
    EXPECT_EQ(ifMatchPattern("/d/a.nsf", none.get()), 1);
    const Queue patterns = queueOf({"/d/*", "/e/a.nsf", "/f/.?"});
    const std::pair<const char*, int> cases[] = {
        {"/d/a.nsf", 1}, {"/d/sub/.b", 1}, {"/e/a.nsf", 1}, {"/f/.x", 1},
        {"/D/a.nsf", 0}, {"/e/b.nsf", 0},  {"/x/d/a", 0},   {"/d", 0},
    };
    for (const auto& [path, expected] : cases) {
        EXPECT_EQ(ifMatchPattern(path, patterns.get()), expected) << path;
        // Also after a match the walk went to the end: the next one starts at the first record.
        EXPECT_EQ(walk(patterns.get()).size(), 3U) << path;
    }
}

TEST(PatternMatch, TracesEachPatternUpToTheMatch) {
    const Queue patterns = queueOf({"/a", "/b", "/c"});
    MessageCapture messages;
    EXPECT_EQ(ifMatchPattern("/b", patterns.get()), 1);
    EXPECT_THAT(messages.traces(),
                ElementsAre("ifMatchPattern: pattern list item [1] szFullPattern [/a]",
                            "ifMatchPattern: cpPatternItem [/a] cpFullPathSection [/b]",
                            "ifMatchPattern: pattern list item [2] szFullPattern [/b]",
                            "ifMatchPattern: cpPatternItem [/b] cpFullPathSection [/b]",
                            "ifMatchPattern: return [TRUE]"));
    messages.clear();
    const Queue none = queueOf({});
    EXPECT_EQ(ifMatchPattern("/b", none.get()), 1);
    EXPECT_THAT(messages.traces(),
                ElementsAre("ifMatchPattern: empty list", "ifMatchPattern: return [TRUE]"));
}

TEST(DatabaseForRecovery, TakesTheLastOfItsNameFromTheQueueOnce) {
    const Queue items = queueOf({"/a", "/b", "/A", "/a", "/c"});
    g_sQRTLN_Global.lhNotesFileList = items.get();
    EXPECT_EQ(isDatabaseForRecovery("/x"), 0);
    EXPECT_EQ(isDatabaseForRecovery("/a"), 1);
    EXPECT_THAT(walk(items.get()), ElementsAre("/a", "/b", "/A", "/c"));
    EXPECT_EQ(isDatabaseForRecovery("/a"), 1);
    EXPECT_EQ(isDatabaseForRecovery("/a"), 0);
    EXPECT_THAT(walk(items.get()), ElementsAre("/b", "/A", "/c"));
    g_sQRTLN_Global.lhNotesFileList = nullptr;
    EXPECT_EQ(isDatabaseForRecovery("/b"), 0);
}

TEST(IncrementalRestore, IsARestoreAtIncrementalLevel) {
    g_sQRTLN_Global.eI_BackupType = QRTLN_OPERATION_TYPE_NOTES;
    for (const DB_OPERATION_TYPE type : {DB_TYPE_RST, DB_TYPE_BCK}) {
        for (const DB_OPERATION_LEVEL level : {DB_LEVEL_INCR, DB_LEVEL_DIFF}) {
            g_sQRTLN_Global.eI_OperationType = type;
            g_sQRTLN_Global.eI_OperationLevel = level;
            const bool expected = type == DB_TYPE_RST && level == DB_LEVEL_INCR;
            EXPECT_EQ(isIncrementalRestore() != 0, expected);
            EXPECT_EQ(isFullIncrementalRestore() != 0, expected);
        }
    }
    g_sQRTLN_Global = {};
}

// Two lists that differ on purpose: a change to one must not pass for a repair.
TEST(FileKind, GoesByTheExtensionInAnyCase) {
    struct Case {
        const char* extension;
        bool db, nsf, ntf, txn;
    };
    const Case cases[] = {
        {".nsf", true, true, false, false},   {".NSF", true, true, false, false},
        {".ntf", true, true, true, false},    {".bOx", true, true, false, false},
        {".ncf", true, false, false, false},  {".ns2", false, true, false, false},
        {".NS3", false, true, false, false},  {".ns4", false, true, false, false},
        {".ns5", false, false, false, false}, {".txn", false, false, false, true},
        {".TXN", false, false, false, true},  {".nsf2", false, false, false, false},
        {".id", false, false, false, false},  {"xnsf", false, false, false, false},
    };
    for (const Case& expected : cases) {
        const std::string name = std::string("x") + expected.extension;
        EXPECT_EQ(isFileNotesDb(name.c_str()) != 0, expected.db) << name;
        EXPECT_EQ(isFileNotesNSF(name.c_str()) != 0, expected.nsf) << name;
        EXPECT_EQ(isFileNotesNTF(name.c_str()) != 0, expected.ntf) << name;
        EXPECT_EQ(isFileNotesTXN(name.c_str()) != 0, expected.txn) << name;
        // The extension alone is no name.
        EXPECT_FALSE(isFileNotesDb(std::string(expected.extension).substr(0, 4).c_str()));
    }
    EXPECT_FALSE(isFileNotesNSF(""));
}

TEST(FileName, IsWhatFollowsTheLastDelimiter) {
    const std::pair<std::string, std::string> cases[] = {
        {"a.nsf", "a.nsf"}, {"/d/e/a.nsf", "a.nsf"},
        {"/d/", "/"},       {"/", "/"},
        {"", ""},           {std::string(2000, 'x'), std::string(1027, 'x')},
    };
    for (const auto& [path, expected] : cases) {
        char out[kPathSize] = "before";
        getFileName(path.c_str(), out);
        EXPECT_EQ(out, expected);
    }
}

TEST(CurrentTime, IsDecimalTextOfFixedWidthInLocalTime) {
    char day[12], month[12], year[12], hour[12], minute[12];
    ASSERT_EQ(getCurrentTime(day, month, year, hour, minute), 1);
    EXPECT_THAT(year, MatchesRegex("[0-9]{4}"));
    const std::pair<const char*, std::pair<int, int>> ranges[] = {
        {day, {1, 31}}, {month, {1, 12}}, {hour, {0, 23}}, {minute, {0, 59}}};
    for (const auto& [text, range] : ranges) {
        EXPECT_THAT(text, MatchesRegex("[0-9]{2}"));
        EXPECT_GE(std::stoi(text), range.first);
        EXPECT_LE(std::stoi(text), range.second);
    }
}

TEST(NewerFile, CountsBothTimesAndEqualOnesAndDoubt) {
    const TemporaryFolder folder;
    const std::string path = folder.write("f");
    const auto setTime = [&](time_t time) {
        const struct utimbuf times = {time, time};
        EXPECT_EQ(utime(path.c_str(), &times), 0);
        struct stat status = {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        return status.st_ctime;
    };
    const time_t changed = setTime(86400);
    EXPECT_EQ(isFileNewer(path.c_str(), changed + 1), 0);
    EXPECT_EQ(isFileNewer(path.c_str(), changed), 1);
    // Modified later than it was changed, as a restored time can be.
    setTime(changed + 5000);
    EXPECT_EQ(isFileNewer(path.c_str(), changed + 5000), 1);
    EXPECT_EQ(isFileNewer(path.c_str(), changed + 5001), 0);

    const std::string missing = folder.file("missing");
    EXPECT_EQ(isFileNewer(missing.c_str(), changed), 1) << "without callbacks";
    const MessageCapture messages;
    EXPECT_EQ(isFileNewer(missing.c_str(), changed), 1);
    EXPECT_THAT(messages.logs(),
                ElementsAre("isFileNewer(): stat [" + missing + "] failed with errno [2]"));
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(isFileNewer(path.c_str(), 86400), 1);
    EXPECT_TRUE(messages.hasTrace("isFileNewer(): [" + path +
                                  "] file is newer than Fri Jan  2 00:00:00 1970"));
    // A time beyond the calendar.
    EXPECT_EQ(isFileNewer(path.c_str(), std::numeric_limits<time_t>::min()), 1);
    unsetenv("TZ");
    tzset();
}

TEST(DriveLetter, TakesTheCaseOfTheSource) {
    struct Case {
        const char *target, *source, *result;
    };
    const Case cases[] = {
        {"C:/x", "c:/y", "c:/x"}, {"c:/x", "C:/y", "C:/x"}, {"C:/x", "D:/y", "C:/x"},
        {"Cx", "c:/y", "cx"},     {"C:", "cy", "c:"},       {"/unix", "/path", "/unix"},
        {"Ab", "ab", "Ab"},       {"", "c:/y", ""},         {"C:/x", "", "C:/x"},
    };
    for (const Case& expected : cases) {
        char target[16];
        copyText(target, expected.target);
        AdaptDriveLetter(target, expected.source);
        EXPECT_STREQ(target, expected.result) << expected.target << " " << expected.source;
    }
}

} // namespace
