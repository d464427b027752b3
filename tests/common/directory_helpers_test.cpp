#include "common/xutil.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/temporary_folder.h"

namespace fs = std::filesystem;

namespace {

mode_t modeOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

TEST(DirectoryBranch, MissingLevelsAreMadeWithTheirModeAndThePathIsWholeAgain) {
    const TemporaryFolder folder;
    folder.makeDirectory("real/kept");
    ASSERT_EQ(chmod(folder.file("real/kept").c_str(), 0700), 0);
    fs::create_directory_symlink(folder.file("real"), folder.file("link"));
    const mode_t mask = umask(0077);
    for (const char* name : {"a//b/", "c", "d/e/f", "a/b", "link/kept/below"}) {
        std::string path = folder.file(name);
        const std::string before = path;
        EXPECT_EQ(x_MakeDirBranch(path.data()), 0) << name;
        EXPECT_EQ(path, before);
        EXPECT_TRUE(fs::is_directory(before)) << name;
    }
    umask(mask);
    EXPECT_EQ(modeOf(folder.file("a")), 0775U) << "whatever the creation mask";
    EXPECT_EQ(modeOf(folder.file("a/b")), 0775U);
    EXPECT_EQ(modeOf(folder.file("real/kept")), 0700U) << "was there before";
}

TEST(DirectoryBranch, BackslashesDelimitWhereThereIsOne) {
    const TemporaryFolder folder;
    const fs::path before = fs::current_path();
    fs::current_path(folder.path());
    std::string path = "one\\two/x";
    // The second part has a "/" in its name, for which there is no directory.
    EXPECT_EQ(x_MakeDirBranch(path.data()), -1);
    std::string single = "plain";
    EXPECT_EQ(x_MakeDirBranch(single.data()), 0);
    fs::current_path(before);
    EXPECT_TRUE(folder.exists("one"));
    EXPECT_TRUE(folder.exists("plain"));
}

TEST(DirectoryBranch, AFileOnTheWayFailsAndLeavesThePathCutThere) {
    const TemporaryFolder folder;
    folder.write("file");
    std::string path = folder.file("file/below/more");
    EXPECT_EQ(x_MakeDirBranch(path.data()), -1);
    EXPECT_EQ(std::string(path.c_str()), folder.file("file"));
}

TEST(PathKind, LinksCountAsDirectoriesWhateverTheyPointTo) {
    const TemporaryFolder folder;
    folder.write("file");
    folder.makeDirectory("directory");
    fs::create_symlink(folder.file("file"), folder.file("to-file"));
    fs::create_symlink(folder.file("nowhere"), folder.file("dangling"));
    ASSERT_EQ(mkfifo(folder.file("fifo").c_str(), 0600), 0);
    const std::pair<const char*, ENUM_STAT> cases[] = {
        {"file", X_STAT_FILE},    {"directory", X_STAT_DIR}, {"to-file", X_STAT_DIR},
        {"dangling", X_STAT_DIR}, {"fifo", X_STAT_ERROR},    {"missing", X_STAT_ERROR},
        {"file/x", X_STAT_ERROR},
    };
    for (const auto& [name, kind] : cases) {
        EXPECT_EQ(x_Stat(folder.file(name).c_str()), kind) << name;
    }
}

} // namespace
