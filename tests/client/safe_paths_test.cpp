// Writing below a folder and nowhere else.
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/safe_folder.h"
#include "client/restore/safe_file.h"
#include "tests/client/run_client.h"

#include <fcntl.h>
#include <iterator>
#include <sstream>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace qrtln::test {
namespace {

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
        const std::size_t slash = relative.rfind('/');
        const std::string folder = slash == std::string::npos ? "" : relative.substr(0, slash);
        std::string problem;
        FileDescriptor parent = SafeFolder(m_inside, GetParam())
                                    .open_folder(folder, problem, [](int, const std::string&) {});
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

INSTANTIATE_TEST_SUITE_P(ByKernelOrByComponents, SafePaths, testing::Values(true, false));

TEST_P(SafePaths, WhatLeadsOutOrIsNoFileIsRefusedAndUnusualNamesStayInside) {
    std::istringstream paths(
        "../outside/x .. ../x mail/../../outside/x mail/.. ./x mail/./x /etc/x mail//x mail/ "
        "link/x link/precious link/new/x relative/x second/x mail/back/x mail/back/new/deep/x "
        "file.id file.id/x dangling.id dangling.id/x dangling.nsf fifo.id fifo.id/x folder.id "
        "mail/old.nsf/x");
    Words refused(std::istream_iterator<std::string>(paths), {});
    refused.push_back("mail/" + std::string(256, 'x'));
    refused.emplace_back("mail/x\0/../../outside/y", 23);
    refused.emplace_back("link\0x/y", 8);
    const auto inside = snapshot(m_inside), outside = snapshot(m_outside);
    for (const std::string& relative : refused) {
        EXPECT_NE(write(relative, true), "") << relative;
        EXPECT_EQ(snapshot(m_outside), outside) << relative;
    }
    EXPECT_THAT(write("link/x", true), HasSubstr("symbolic link"));
    EXPECT_THAT(write("fifo.id", true), HasSubstr("a FIFO"));
    EXPECT_THAT(write("mail/old.nsf", false), HasSubstr("there already"));
    EXPECT_EQ(snapshot(m_inside), inside);
    for (const char* relative :
         {"new/deeper/x.nsf", "a\nb", "mail/\xff\xfe.nsf", "..x", "x..", "mail/old.nsf", " "}) {
        EXPECT_EQ(write(relative, true), "") << relative;
        EXPECT_EQ(read_file(m_inside + "/" + relative), "new") << relative;
    }
    EXPECT_EQ(snapshot(m_outside), outside);
}

TEST_P(SafePaths, WhatIsReplacedLeavesItsAttributesAndSaysWhatItsOtherNamesKeep) {
    const std::string old = m_inside + "/mail/old.nsf";
    // The owner's rights, the group's 7, the mask's 5: as the kernel stores an access list.
    const std::string list("\2\0\0\0\1\0\6\0\xff\xff\xff\xff\4\0\7\0\xff\xff\xff\xff"
                           "\x10\0\5\0\xff\xff\xff\xff\x20\0\0\0\xff\xff\xff\xff",
                           36);
    if (::setxattr(old.c_str(), "user.note", "x", 1, 0) != 0)
        GTEST_SKIP() << "no extended attributes here";
    const bool listed =
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

} // namespace
} // namespace qrtln::test
