// The parts that turn what people and servers write into what the client works with.

#include "client/database_arguments.h"
#include "client/error.h"
#include "client/file_io.h"
#include "client/module_log.h"
#include "client/notes_ini.h"
#include "client/temporary_directory.h"
#include "client/text.h"
#include "tests/client/run_client.h"

#include <fcntl.h>
#include <gmock/gmock.h>

namespace qrtln {
namespace {

namespace fs = std::filesystem;
using test::ScratchFolder;
using test::write_file;
using testing::HasSubstr;
using testing::Pair;

class DatabaseArguments : public testing::Test {
  protected:
    DatabaseArguments() {
        write_file(m_data + "/mail/a.nsf", "a");
        write_file(m_data + "/mail/b[1]?\\.nsf", "b");
        write_file(m_data + "/[old]/c.nsf", "c");
        write_file(m_data + "/odd*/d/e.txt", "x");
        fs::create_directories(m_data + "/[bare]");
        write_file(m_scratch / "elsewhere.nsf", "x");
        fs::create_directory_symlink(m_data, m_scratch / "link");
    }
    ScratchFolder m_scratch;
    std::string m_data = m_scratch / "data";
};

TEST_F(DatabaseArguments, BecomeValuesBelowTheDataDirectory) {
    const struct {
        std::string given;
        std::string path;
        std::string value;
    } cases[] = {
        {"mail/a.nsf", "/mail/a.nsf", "/mail/a.nsf"},
        {"./mail//a.nsf", "/mail/a.nsf", "/mail/a.nsf"},
        {m_data + "/mail/a.nsf", "/mail/a.nsf", "/mail/a.nsf"},
        {"mail", "/mail", "/mail"},
        {"mail/", "/mail", "/mail"},
        {"mail/b[1]?\\.nsf", "/mail/b[1]?\\.nsf", "/mail/b\\[1]\\?\\\\.nsf"},
        {"odd*/d", "/odd*/d", "/odd*/d/*.*"},
        {"[old]", "/[old]", "/[old]/*.*"},
        {"[old]/c.nsf", "/[old]/c.nsf", "/[old]/c.nsf"},
        {"mail/../mail/a.nsf", "/mail/a.nsf", "/mail/a.nsf"},
        {m_scratch / "link/mail/a.nsf", "/mail/a.nsf", "/mail/a.nsf"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.given);
        auto resolved = resolve_database_arguments({test.given}, m_data);
        ASSERT_EQ(resolved.size(), 1U);
        EXPECT_EQ(resolved[0].path, m_data + test.path);
        EXPECT_EQ(resolved[0].value, "QRTLN:" + m_data + test.value);
    }
}

TEST_F(DatabaseArguments, ThatCannotBePassedAreRefusedByName) {
    const struct {
        std::string given;
        const char* reason;
    } cases[] = {
        {"mail/none.nsf", "No such file"},
        {"mail/*.nsf", "No such file"},
        {m_scratch / "elsewhere.nsf", "not below the data directory"},
        {"../elsewhere.nsf", "not below the data directory"},
        {"", "names no database"},
        {"[bare]", "no name with a dot"},
        {std::string(1100, 'x'), "File name too long"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.given);
        try {
            resolve_database_arguments({"mail/a.nsf", test.given}, m_data);
            ADD_FAILURE() << "accepted";
        } catch (const ClientError& failure) {
            EXPECT_EQ(failure.exit_code(), 1);
            EXPECT_THAT(failure.what(), HasSubstr("'" + test.given + "'"));
            EXPECT_THAT(failure.what(), HasSubstr(test.reason));
        }
    }
}

TEST_F(DatabaseArguments, CoveredByAFolderOrRepeatedAreDropped) {
    auto resolved =
        resolve_database_arguments({"mail/a.nsf", "mail", m_data + "/mail", "[old]/c.nsf"}, m_data);
    ASSERT_EQ(resolved.size(), 2U);
    EXPECT_EQ(resolved[0].path, m_data + "/mail");
    EXPECT_EQ(resolved[1].path, m_data + "/[old]/c.nsf");
}

TEST_F(DatabaseArguments, ScanFindsTheLargestAndWhatTheModuleCannotReach) {
    write_file(m_data + "/mail/big.NTF", std::string(5000, 'x'));
    write_file(m_data + "/mail/bigger.txt", std::string(9000, 'x'));
    write_file(m_data + "/mail/.hidden.nsf", std::string(9000, 'x'));
    fs::create_directory_symlink(m_data, m_data + "/mail/loop");
    fs::create_directory_symlink("/", m_data + "/mail/root");
    std::string deep = m_data;
    while (deep.size() < 1100)
        deep += "/" + std::string(100, 'd');
    fs::create_directories(deep);
    write_file(deep + "/far.nsf", "x");
    SelectionScan scan = scan_selection(m_data, {});
    EXPECT_EQ(scan.databases.size(), 4U);
    EXPECT_EQ(scan.largest, 5000U);
    EXPECT_EQ(scan.largest_path, m_data + "/mail/big.NTF");
    EXPECT_THAT(scan.unreachable, testing::UnorderedElementsAre(
                                      Pair(deep + "/far.nsf", HasSubstr("longer")),
                                      Pair(m_data + "/mail/.hidden.nsf", HasSubstr("dot"))));
}

TEST(NotesIni, NamesIgnoreCaseAndTheLastValueCounts) {
    auto variables = parse_notes_ini("\xEF\xBB\xBF[Notes] =x\r\nDirectory=/other\r\n"
                                     "no equals sign\n DIRECTORY\t= /local/data \r\nA=b=c\n"
                                     "Empty=\nLast=1");
    EXPECT_EQ(variables["directory"], "/local/data");
    EXPECT_EQ(variables["a"], "b=c");
    EXPECT_EQ(variables["empty"], "");
    EXPECT_EQ(variables["last"], "1");
    EXPECT_EQ(variables.size(), 4U);
}

TEST(ModuleLog, AnnouncesLogsInTwoForms) {
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
}

TEST(Text, BytesOfAnyEncodingBecomePrintable) {
    const struct {
        const char* bytes;
        const char* printable;
        const char* terminal;
    } cases[] = {
        {"plain", "plain", "plain"},
        {"gr\xC3\xBC\xC3\x9F", "gr\xC3\xBC\xC3\x9F", "gr\xC3\xBC\xC3\x9F"},
        {"a\nb", "a\nb", "a\\x0ab"},
        {"\x1b[2J", "\x1b[2J", "\\x1b[2J"},
        {"\xC2\x9B", "\xC2\x9B", "\\xc2\\x9b"},
        {"gr\xFC", "gr\\xfc", "gr\\xfc"},
        {"\x7F\xE2\x80\xAE", "\x7F\xE2\x80\xAE", "\\x7f\\xe2\\x80\\xae"},
        {"\xC0\x80", "\\xc0\\x80", "\\xc0\\x80"},
        {"\xED\xA0\x80", "\\xed\\xa0\\x80", "\\xed\\xa0\\x80"},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(printable_utf8(test.bytes), test.printable);
        EXPECT_EQ(for_terminal(test.bytes), test.terminal);
    }
    EXPECT_EQ(json_for_terminal("{\n\"\xC2\x9B\x7F\xE2\x80\xAE\": \"\xF0\x9F\x93\xA7 \xC3\xBC\"}"),
              "{\n\"\\u009b\\u007f\\u202e\": \"\xF0\x9F\x93\xA7 \xC3\xBC\"}");
}

// The kernel's own file system cannot flush folders, as some network ones.
TEST(FlushDirectory, ThatCannotBeDoneIsNoFailure) {
    EXPECT_EQ(flush_directory(AT_FDCWD, "/proc/self/task"), 0);
    EXPECT_EQ(flush_directory(AT_FDCWD, "/no/such"), ENOENT);
}

TEST(TemporaryDirectory, RemovesItselfWithoutFollowingLinksAndLeavesNoLeftoverOfTheDead) {
    ScratchFolder scratch;
    write_file(scratch / "precious/file", "x");
    // No process has a number beyond the kernel's limit of 2^22.
    write_file(scratch / "qrtln-99999999-AbCdEf/copy.nsf", "x");
    fs::create_directory_symlink(scratch / "precious", scratch / "qrtln-99999998-AbCdEf");
    write_file(scratch / ("qrtln-" + std::to_string(::getpid()) + "-AbCdEf/copy.nsf"), "x");
    std::string path;
    {
        TemporaryDirectory directory(scratch.path(), scratch / "data");
        path = directory.path();
        EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_all);
        fs::create_directory_symlink(scratch / "precious", path + "/link");
        write_file(path + "/mail/x.nsf", "x");
    }
    EXPECT_FALSE(fs::exists(path));
    EXPECT_FALSE(fs::exists(scratch / "qrtln-99999999-AbCdEf"));
    EXPECT_TRUE(fs::is_symlink(scratch / "qrtln-99999998-AbCdEf"));
    EXPECT_TRUE(fs::exists(scratch / "precious/file"));
    // One of a process that lives is not touched.
    EXPECT_TRUE(fs::exists(scratch / ("qrtln-" + std::to_string(::getpid()) + "-AbCdEf")));
}

} // namespace
} // namespace qrtln
