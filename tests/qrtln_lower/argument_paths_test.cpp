#include "qrt_lotus_notes/qrtln_u/argument_paths.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>

#include <sys/stat.h>
#include <utime.h>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "tests/support/message_capture.h"
#include "tests/support/temporary_folder.h"

namespace {

class DatabaseArgument : public testing::Test {
  protected:
    DatabaseArgument() {
        data.write("mail/a.nsf");
        data.write("mail/.hidden.ntf");
        data.makeDirectory("directory");
        copyText(g_sQRTLN_Global.szNotesDataDirectory, root.c_str());
    }
    ~DatabaseArgument() override { g_sQRTLN_Global.szNotesDataDirectory[0] = '\0'; }

    static std::string resolve(const std::string& arg) {
        char out[kPathSize] = "";
        EXPECT_EQ(handleRelativeArguments(arg.c_str(), out), 0);
        return out;
    }

    const TemporaryFolder data;
    const std::string root = data.path() + "/";
};

TEST_F(DatabaseArgument, NamesTheWholeSystemOrAPathBelowTheDataDirectory) {
    const std::string longest(kPathSize - 1 - root.size(), 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"DATABASE=", "NOTES"},
        {"DATABASE", "NOTES"},
        {"", "NOTES"},
        {"DATABASE=ALL", "NOTES"},
        {"Notes", "NOTES"},
        {"DATABASE:mail/a.nsf", root + "mail/a.nsf"},
        // Not there: kept for the selection to reject.
        {"DATABASE=none.nsf", root + "none.nsf"},
        {longest, root + longest},
        {longest + "y", ""},
        // The data directory goes before an absolute path, too.
        {"DATABASE=/mail/a.nsf", root + "/mail/a.nsf"},
        // A pattern stays a pattern where something matches, else it is taken as given.
        {"DATABASE=mail/*.nsf", root + "mail/*.nsf"},
        {"DATABASE=mail/?.n*", root + "mail/?.n*"},
        {"DATABASE=mail/*.NSF", "mail/*.NSF"},
        {"DATABASE=mail/*.ntf", "mail/*.ntf"}, // only a hidden file, which "*" does not match
        {"DATABASE=mail/.*.ntf", root + "mail/.*.ntf"},
        {"DATABASE=directory/*", "directory/*"}, // "." and ".." are no match
        {"DATABASE=none/*.nsf", "none/*.nsf"},
        {"DATABASE=*/a.nsf", "*/a.nsf"}, // directories are literal
    };
    const MessageCapture messages;
    for (const auto& [arg, expected] : cases) {
        EXPECT_EQ(resolve(arg), expected) << arg;
    }
    EXPECT_THAT(messages.logs(), testing::ElementsAre(testing::HasSubstr(longest + "y")));
    for (const std::string& why :
         {std::string("handleRelativeArguments(): opendir failed with errno [2]"),
          "handleRelativeArguments(): File [" + root + "mail/*.NSF] is not accessible",
          "Could not find file " + root + "none/*.nsf"}) {
        EXPECT_TRUE(messages.hasTrace(why)) << why;
    }
    g_sQRTLN_Global.szNotesDataDirectory[0] = '\0';
    EXPECT_EQ(resolve("DATABASE=" + root + "mail/a.nsf"), root + "mail/a.nsf");
    EXPECT_EQ(resolve("DATABASE=/*"), "/*");
    EXPECT_EQ(resolve("DATABASE=*.none"), "*.none");
}

// A walk that ended at the match would begin the next one behind it.
TEST(PatternMatch, TheWalkGoesOnBehindAMatch) {
    LIST_INFO* patterns = CreateFIFOList();
    for (const char* pattern : {"/mail/*", "/else/*"}) {
        pushPath(patterns, pattern, DB_BACKUP_FILE_TYPE_DB);
    }
    EXPECT_EQ(ifMatchPattern("/mail/a.nsf", patterns), 1);
    EXPECT_EQ(ifMatchPattern("/mail/a.nsf", patterns), 1);
    DestroyFIFOList(patterns);
}

// Lists that differ on purpose: a change to one must not pass for a repair.
TEST(FileKind, GoesByTheExtensionInAnyCase) {
    const auto kinds = [](const char* name) {
        return std::string(isFileNotesDb(name) ? "db " : "") +
               (isFileNotesNSF(name) ? "nsf " : "") + (isFileNotesNTF(name) ? "ntf " : "") +
               (isFileNotesTXN(name) ? "txn " : "");
    };
    for (const auto& [name, expected] : {std::pair{"x.NSF", "db nsf "},
                                         {"x.ntf", "db nsf ntf "},
                                         {"x.bOx", "db nsf "},
                                         {"x.ncf", "db "},
                                         {"x.ns2", "nsf "},
                                         {"x.NS3", "nsf "},
                                         {"x.ns4", "nsf "},
                                         {"x.ns5", ""},
                                         {"x.txn", "txn "},
                                         {"x.nsf2", ""},
                                         {".nsf", ""},
                                         {"xxnsf", ""}}) {
        EXPECT_EQ(kinds(name), expected) << name;
    }
}

TEST(FileName, IsWhatFollowsTheLastDelimiter) {
    for (const auto& [path, expected] :
         {std::pair{"a.nsf", "a.nsf"}, {"/d/e/a.nsf", "a.nsf"}, {"/d/", "/"}}) {
        char out[kPathSize] = "before";
        getFileName(path, out);
        EXPECT_STREQ(out, expected);
    }
}

TEST(NewerFile, CountsBothTimesAndEqualOnesAndDoubt) {
    const TemporaryFolder folder;
    const std::string path = folder.write("f");
    struct stat status = {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    // Modified later than it was changed, as a restored time can be, and earlier.
    for (const time_t later : {5000, -5000}) {
        const struct utimbuf times = {0, status.st_ctime + later};
        ASSERT_EQ(utime(path.c_str(), &times), 0);
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        const time_t latest = std::max(status.st_mtime, status.st_ctime);
        EXPECT_EQ(isFileNewer(path.c_str(), latest), 1);
        EXPECT_EQ(isFileNewer(path.c_str(), latest + 1), 0);
    }
    EXPECT_EQ(isFileNewer(folder.file("missing").c_str(), status.st_ctime), 1);
}

TEST(DriveLetter, TakesTheCaseOfTheSource) {
    const struct {
        const char *target, *source, *result;
    } cases[] = {
        {"C:/x", "c:/y", "c:/x"}, {"c:/x", "C:/y", "C:/x"}, {"C:/x", "D:/y", "C:/x"},
        {"Cx", "c:/y", "cx"},     {"C:", "cy", "c:"},       {"Ab", "ab", "Ab"},
        {"", "c:/y", ""},         {"C:/x", "", "C:/x"},
    };
    for (const auto& c : cases) {
        char target[16];
        copyText(target, c.target);
        AdaptDriveLetter(target, c.source);
        EXPECT_STREQ(target, c.result) << c.target << " " << c.source;
    }
}

} // namespace
