// Writing below a folder and nowhere else, and the choice of what is restored.

#include "client/error.h"
#include "client/original.h"
#include "client/point_in_time.h"
#include "client/recovery_logs.h"
#include "client/restore_plan.h"
#include "client/safe_paths.h"
#include "client/text.h"
#include "tests/client/run_client.h"

#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace qrtln {
namespace {

namespace fs = std::filesystem;
using test::read_file;
using test::ScratchFolder;
using test::snapshot;
using test::write_file;
using testing::HasSubstr;

class SafePaths : public testing::TestWithParam<bool> {
  protected:
    SafePaths() {
        write_file(m_outside + "/precious", "precious");
        fs::create_directories(m_inside + "/mail/deep");
        write_file(m_inside + "/mail/old.nsf", "old");
        fs::create_directory_symlink(m_outside, m_inside + "/link");
        fs::create_directory_symlink("../outside", m_inside + "/relative");
        fs::create_directory_symlink("link", m_inside + "/second");
        fs::create_directory_symlink("../link", m_inside + "/mail/back");
        fs::create_symlink(m_outside + "/precious", m_inside + "/file.id");
        fs::create_symlink("missing", m_inside + "/dangling.id");
        fs::create_symlink(m_outside + "/new", m_inside + "/dangling.nsf");
        fs::create_directories(m_inside + "/folder.id");
        EXPECT_EQ(::mkfifo((m_inside + "/fifo.id").c_str(), 0600), 0);
    }
    // Writes a file below the folder as a restore does; what stopped it.
    std::string write(const std::string& relative, bool replace) {
        SafeFolder folder(m_inside, GetParam());
        std::size_t slash = relative.rfind('/');
        std::string problem;
        FileDescriptor parent =
            folder.open_folder(slash == std::string::npos ? "" : relative.substr(0, slash), problem,
                               [](int, const std::string&) {});
        if (!parent)
            return problem;
        SafeFile file(std::move(parent), relative.substr(slash + 1));
        for (const std::string& step : {file.create(), file.write(as_bytes("new"))})
            if (!step.empty())
                return step;
        return file.commit(nullptr, replace);
    }

    ScratchFolder m_scratch;
    std::string m_inside = m_scratch / "inside";
    std::string m_outside = m_scratch / "outside";
};

INSTANTIATE_TEST_SUITE_P(Resolution, SafePaths, testing::Values(true, false),
                         [](const auto& test) { return test.param ? "Kernel" : "Components"; });

TEST_P(SafePaths, WhatLeadsOutOrIsNoFileIsRefusedAndNothingChanges) {
    const std::string cases[] = {
        "../outside/x",
        "..",
        "../x",
        "mail/../../outside/x",
        "mail/..",
        "./x",
        "mail/./x",
        "/etc/x",
        "mail//x",
        "mail/",
        "link/x",
        "link/precious",
        "link/new/x",
        "relative/x",
        "second/x",
        "mail/back/x",
        "mail/back/new/deep/x",
        "file.id",
        "file.id/x",
        "dangling.id",
        "dangling.id/x",
        "dangling.nsf",
        "fifo.id",
        "fifo.id/x",
        "folder.id",
        "mail/old.nsf/x",
        "mail/" + std::string(256, 'x'),
        std::string(256, 'x') + "/x",
        std::string("mail/x\0/../../outside/y", 23),
        std::string("link\0x/y", 8),
    };
    auto inside = snapshot(m_inside);
    auto outside = snapshot(m_outside);
    for (const std::string& relative : cases) {
        EXPECT_NE(write(relative, true), "") << relative;
        EXPECT_EQ(snapshot(m_outside), outside) << relative;
    }
    EXPECT_EQ(snapshot(m_inside), inside);
    EXPECT_THAT(write("link/x", true), HasSubstr("symbolic link"));
    EXPECT_THAT(write("fifo.id", true), HasSubstr("a FIFO"));
    EXPECT_THAT(write("mail/old.nsf", false), HasSubstr("there already"));
    EXPECT_EQ(snapshot(m_inside), inside);
}

TEST_P(SafePaths, WhatIsReplacedLeavesItsAttributesAndSaysWhatItsOtherNamesKeep) {
    std::string old = m_inside + "/mail/old.nsf";
    // The owner's rights, the group's 7, the mask's 5: as the kernel stores an access list.
    const std::string list("\2\0\0\0\1\0\6\0\xff\xff\xff\xff\4\0\7\0\xff\xff\xff\xff"
                           "\x10\0\5\0\xff\xff\xff\xff\x20\0\0\0\xff\xff\xff\xff",
                           36);
    if (::setxattr(old.c_str(), "user.note", "x", 1, 0) != 0)
        GTEST_SKIP() << "no extended attributes here";
    bool listed =
        ::setxattr(old.c_str(), "system.posix_acl_access", list.data(), list.size(), 0) == 0;
    fs::create_hard_link(old, m_inside + "/other.nsf");
    SafeFile file(FileDescriptor(::open((m_inside + "/mail").c_str(), O_RDONLY | O_DIRECTORY)),
                  "old.nsf");
    ManifestItem item;
    item.has_metadata = true;
    item.mode = 0640;
    item.uid = ::geteuid();
    item.gid = ::getegid();
    ASSERT_EQ(file.create(), "");
    ASSERT_EQ(file.write(as_bytes("new")), "");
    ASSERT_EQ(file.commit(&item, true), "");
    EXPECT_THAT(file.warnings(), testing::ElementsAre(HasSubstr("1 other names")));
    EXPECT_EQ(read_file(old) + read_file(m_inside + "/other.nsf"), "newold");
    char value[64] = "";
    EXPECT_EQ(::getxattr(old.c_str(), "user.note", value, sizeof value), 1);
    if (listed) {
        ASSERT_EQ(::getxattr(old.c_str(), "system.posix_acl_access", value, sizeof value), 36);
        EXPECT_EQ(value[14], 7); // the group's
        EXPECT_EQ(value[22], 4); // the mask is the mode of the set
    }
}

TEST_P(SafePaths, UnusualNamesAndNewFoldersStayInside) {
    for (const std::string& relative :
         {std::string("new/deeper/x.nsf"), std::string("a\nb"), std::string("mail/\xff\xfe.nsf"),
          std::string("..x"), std::string("x.."), std::string("mail/old.nsf"), std::string(" "),
          std::string(255, 'x')}) {
        EXPECT_EQ(write(relative, true), "") << relative;
        EXPECT_EQ(read_file(m_inside + "/" + relative), "new") << relative;
    }
    EXPECT_EQ(snapshot(m_outside).size(), 2U);
}

// The newest copy of each, up to a minute; of one log, with its own control file.
TEST(RestoreSelection, TakesWhatWasCopiedByThenAndTheLogsOfOneIdentity) {
    constexpr std::int64_t start = 1'000'000'020; // a whole minute
    const struct {
        const char* set;
        int started, ended;
        const char* log;   // the archive identity
        const char* items; // each with the minute of its copy
    } sets[] = {
        {"20010909T014700Z-full", 0, 3, "aaaaaaaa",
         "/d/a.nsf 1 /d/b.nsf 2 /d/gone.nsf 3 /l/S1.TXN 3 /l/S2.TXN 3 /l/nlogctrl.lfh 3"},
        {"20010909T015700Z-full", 10, 20, "bbbbbbbb",
         "/d/a.nsf 11 /d/b.nsf 15 /d/new.nsf 16 /l/S1.TXN 17 /l/nlogctrl.lfh 18"},
        {"20010909T021700Z-copy", 30, 31, "", "/d/a.nsf 0 /l/nlogctrl.lfh 31"},
    };
    ScratchFolder scratch;
    auto store = open_directory_store(scratch / "store", StoreAccess::write);
    for (const auto& set : sets) {
        Manifest manifest;
        manifest.set = set.set;
        manifest.level = std::string(set.set).substr(17);
        manifest.started = start + 60 * set.started;
        manifest.ended = start + 60 * set.ended;
        manifest.complete = true;
        manifest.whole_system = manifest.level == "full";
        manifest.data_directory = "/d";
        std::istringstream items(set.items);
        std::string path;
        for (int copied = 0; items >> path >> copied;) {
            ManifestItem& item = manifest.items.emplace_back();
            item.path = path;
            item.kind = item_kind_of(path);
            item.status = ItemStatus::stored;
            item.object = std::string(64, 'a');
            item.copied = copied == 0 ? 0 : start + 60 * copied;
            if (item.kind == ItemKind::log)
                item.log = LogIdentity{1, set.log, false};
        }
        store->write_manifest(set.set, serialize(manifest));
    }
    const ServerScope scope{"", "", "/d", "/d"};
    EXPECT_EQ(load_stored_logs(*store, scope, {}).control->set, sets[1].set);
    // Each selected item as its name and the last digit of its set's minute; "!" is left out.
    const struct {
        int at; // minute, 0: the newest
        std::vector<std::string> names;
        const char* expected; // empty: refused
    } cases[] = {
        {2, {}, ""},
        {3, {}, "a0 b0 gone0 S10 S20 nlogctrl0"},
        {12, {}, "a1 b0 S10 S20 nlogctrl0"},
        {17, {}, "a1 b1 new1 S11 S20!"},
        {20, {}, "a1 b1 new1 S11 nlogctrl1"},
        {31, {}, "a1 b1 new1 S11 nlogctrl1"}, // the time of the copy is not told: before its end
        {32, {}, "a3 b1 new1 S11 nlogctrl1"},
        {0, {}, "a3 b1 new1 S11 nlogctrl1"},
        {12, {"/d"}, "a1 b0"},
        {12, {"b.nsf"}, "b0"},
        {12, {"new.nsf"}, ""},
        {12, {"gone.nsf"}, "gone0"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(std::to_string(test.at) + " " + test.expected);
        SelectionRequest request;
        request.names = test.names;
        request.all = test.names.empty();
        if (test.at != 0)
            request.at = utc_time(start + 60 * test.at);
        std::string got;
        try {
            for (const SelectedItem& item : select_for_restore(*store, scope, request).items)
                got += (got.empty() ? "" : " ") + fs::path(item.item.path).stem().string() +
                       (item.set < sets[1].set   ? "0"
                        : item.set < sets[2].set ? "1"
                                                 : "3") +
                       (item.other_log ? "!" : "");
        } catch (const ClientError& error) {
            EXPECT_EQ(error.exit_code(), 1) << error.what();
        }
        EXPECT_EQ(got, test.expected);
    }
}

TEST(RestoreMoment, ExactlyOneMomentOrAnError) {
    ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    ::tzset();
    const std::pair<const char*, std::time_t> accepted[] = {
        {"2026-01-01 01:00", 1767225600},          {"2026-07-01t02:00:05", 1782864005},
        {"20260101T000000Z", 1767225600},          {"2026-01-01 00:00z", 1767225600},
        {"2025-12-31T18:30:00-05:30", 1767225600}, {"2026-03-29T02:30:00+01:00", 1774747800},
    };
    for (const auto& [text, time] : accepted)
        for (const std::string& form : {std::string(text), zoned_time(time), utc_time(time)})
            EXPECT_EQ(parse_moment(form, "--at").time, time) << form;
    EXPECT_EQ(parse_moment("20260101T000000Z", "--at").set_prefix, "20260101T000000Z");
    const struct {
        const char* text;
        const char* reason;
        const char* hint = "2026-11-21T02:49:23Z";
    } cases[] = {
        {"", "understood"},
        {"yesterday", "understood"},
        {"2026-01-01", "understood"},
        {"2026-1-1 01:00", "understood"},
        {"2026-01-01T01:00:00.5Z", "fractions"},
        {"2026-01-01T01:00+24:00", "no such time"},
        {"2026-01-01 01:00 ", "understood"},
        {"20260101T000000", "understood"},
        {"2026-02-30 01:00", "no such time"},
        {"2026-13-01 01:00", "no such time"},
        {"2026-01-01 25:00", "no such time"},
        {"20260230T000000Z", "no such time"},
        {"2026-03-29 02:30", "skips", "2026-03-29T01:30:00+01:00 or 2026-03-29T03:30:00+02:00"},
        {"2026-10-25 02:30", "twice", "2026-10-25T02:30:00+02:00 or 2026-10-25T02:30:00+01:00"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.text);
        try {
            parse_moment(test.text, "--option");
            ADD_FAILURE();
        } catch (const ClientError& error) {
            EXPECT_EQ(error.exit_code(), 2);
            EXPECT_THAT(error.what(), HasSubstr(test.reason));
            EXPECT_THAT(error.what(), testing::StartsWith("--option '"));
            EXPECT_THAT(error.hint(), HasSubstr(test.hint));
        }
    }
    ::unsetenv("TZ");
    ::tzset();
}

} // namespace
} // namespace qrtln
