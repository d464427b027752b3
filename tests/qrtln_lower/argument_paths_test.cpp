#include "qrt_lotus_notes/qrtln_u/argument_paths.h"

#include <utime.h>

#include "tests/qrtln_lower/operation_test.h"

namespace {

class DatabaseArgument : public OperationTest {
  protected:
    static std::string resolve(const std::string& arg) {
        char out[kPathSize] = "";
        EXPECT_EQ(handleRelativeArguments(arg.c_str(), out), 0);
        return out;
    }
};

TEST_F(DatabaseArgument, NamesTheWholeSystemOrAPathBelowTheDataDirectory) {
    folder.write("mail/a.nsf");
    folder.write("mail/.hidden.ntf");
    folder.makeDirectory("directory");
    const std::string root = folder.path() + "/";
    set(g_sQRTLN_Global.szNotesDataDirectory, root);
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
        {"DATABASE=mail/*.NSF", "mail/*.NSF"},
        {"DATABASE=mail/*.ntf", "mail/*.ntf"},   // only a hidden file, which "*" does not match
        {"DATABASE=directory/*", "directory/*"}, // "." and ".." are no match
        {"DATABASE=*/a.nsf", "*/a.nsf"},         // directories are literal
    };
    for (const auto& [arg, expected] : cases) {
        EXPECT_EQ(resolve(arg), expected) << arg;
    }
    EXPECT_THAT(messages.logs(), testing::ElementsAre(testing::HasSubstr(longest + "y")));
    for (const std::string& why :
         {std::string("handleRelativeArguments(): opendir failed with errno [2]"),
          "handleRelativeArguments(): File [" + root + "mail/*.NSF] is not accessible",
          "Could not find file " + root + "*/a.nsf"}) {
        EXPECT_TRUE(messages.hasTrace(why)) << why;
    }
    g_sQRTLN_Global.szNotesDataDirectory[0] = '\0';
    EXPECT_EQ(resolve("DATABASE=" + root + "mail/a.nsf"), root + "mail/a.nsf");
    EXPECT_EQ(resolve("DATABASE=/*"), "/*");
    EXPECT_EQ(resolve("DATABASE=*.none"), "*.none");
}

// Lists that differ on purpose: a change to one must not pass for a repair.
TEST_F(DatabaseArgument, KindsOfFilesGoByTheExtensionInAnyCase) {
    const auto kinds = [](const char* name) {
        return std::string(isFileNotesDb(name) ? "db " : "") +
               (isFileNotesNSF(name) ? "nsf " : "") + (isFileNotesNTF(name) ? "ntf " : "") +
               (isFileNotesTXN(name) ? "txn " : "");
    };
    for (const auto& [names, expected] : {std::pair{"x.NSF x.bOx", "db nsf "},
                                          {"x.ntf", "db nsf ntf "},
                                          {"x.ncf", "db "},
                                          {"x.ns2 x.NS3 x.ns4", "nsf "},
                                          {"x.txn", "txn "},
                                          {"x.ns5 .nsf", ""}}) {
        for (const std::string& name : split(names)) {
            EXPECT_EQ(kinds(name.c_str()), expected) << name;
        }
    }
    char name[kPathSize];
    for (const auto& [path, expected] :
         {std::pair{"/d/e/a.nsf", "a.nsf"}, {"b", "b"}, {"/d/", "/"}}) {
        getFileName(path, name);
        EXPECT_STREQ(name, expected);
    }
}

TEST_F(DatabaseArgument, AFileIsNewerByEitherOfItsTimesAndWhenInDoubt) {
    const std::string path = folder.write("f");
    const time_t changed = time(nullptr);
    const auto modify = [&](time_t at) {
        const struct utimbuf times = {0, at};
        EXPECT_EQ(utime(path.c_str(), &times), 0);
    };
    modify(5000);
    EXPECT_TRUE(isFileNewer(path.c_str(), changed - 100));
    EXPECT_FALSE(isFileNewer(path.c_str(), changed + 100));
    modify(changed + 100);
    EXPECT_TRUE(isFileNewer(path.c_str(), changed + 100));
    EXPECT_TRUE(isFileNewer("/missing", changed));
}

} // namespace
