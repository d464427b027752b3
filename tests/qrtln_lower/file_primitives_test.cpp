#include "qrt_lotus_notes/qrtln_o/disk_flush.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include <sys/resource.h>
#include <unistd.h>

#include "tests/support/message_capture.h"
#include "tests/support/temporary_folder.h"

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

namespace {

long openFiles() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

class FilePrimitives : public testing::Test {
  protected:
    void writeThrough(const std::string& text) {
        EXPECT_EQ(SysFileWrite(stream, text.data(), static_cast<DWORD>(text.size())), 0);
    }
    bool copy(const std::string& source, const std::string& target, BOOL failIfExists = FALSE) {
        return SysFileCopy(source.c_str(), target.c_str(), failIfExists) != FALSE;
    }

    TemporaryFolder folder;
    MessageCapture messages;
    FILE* stream = nullptr;
};

TEST_F(FilePrimitives, CreatedFileOverwritesFromTheStartAndKeepsWhatLiesBeyond) {
    const std::string path = folder.write("f", "0123456789");
    ASSERT_EQ(SysFileCreate(path.c_str(), &stream), 0);
    writeThrough("abc");
    EXPECT_EQ(SysFileClose(stream), 0);
    EXPECT_EQ(folder.read("f"), "abc3456789");
    ASSERT_EQ(SysFileCreate(folder.file("new").c_str(), &stream), 0);
    writeThrough("abc");
    EXPECT_EQ(SysFileClose(stream), 0);
    EXPECT_EQ(folder.read("new"), "abc");
}

TEST_F(FilePrimitives, OpenedFileIsReadWrittenAndSoughtFromEitherEnd) {
    const std::string path = folder.write("f", "0123456789");
    ASSERT_EQ(SysFileOpen(path.c_str(), &stream), 0);
    EXPECT_EQ(SysFileSeek(stream, 0, 1), 0);
    EXPECT_EQ(std::ftell(stream), 10);
    writeThrough("X");
    EXPECT_EQ(SysFileSeek(stream, 4, 0), 0);
    char data[3] = "";
    EXPECT_EQ(SysFileRead(stream, data, 2), 0);
    EXPECT_STREQ(data, "45");
    EXPECT_EQ(SysFileClose(stream), 0);
    EXPECT_EQ(folder.read("f"), "0123456789X");
}

TEST_F(FilePrimitives, ShortReadReturnsWhateverErrnoHolds) {
    const std::string path = folder.write("f", "12");
    ASSERT_EQ(SysFileOpenRead(path.c_str(), &stream), 0);
    char data[8];
    errno = 0;
    EXPECT_EQ(SysFileRead(stream, data, 8), 0);
    errno = ENOMEM;
    EXPECT_EQ(SysFileRead(stream, data, 8), ENOMEM);
    EXPECT_THAT(messages.traces(), ElementsAre("SysFileOpenRead [" + path + "]",
                                               "SysFileRead error [0]", "SysFileRead error [12]"));
    EXPECT_EQ(SysFileClose(stream), 0);
}

TEST_F(FilePrimitives, FullDiskShowsAtTheWriteOrAtTheClose) {
    ASSERT_EQ(SysFileOpen("/dev/full", &stream), 0);
    writeThrough("buffered");
    EXPECT_EQ(SysFileClose(stream), ENOSPC);
    ASSERT_EQ(SysFileOpen("/dev/full", &stream), 0);
    const std::string large(3 * kStreamBufferSize, 'x');
    EXPECT_EQ(SysFileWrite(stream, large.data(), static_cast<DWORD>(large.size())), ENOSPC);
    EXPECT_TRUE(messages.hasTrace("SysFileWrite error [28]"));
    std::fclose(stream);
}

TEST_F(FilePrimitives, FailedOpenSaysWhyAndLeavesNoStream) {
    const std::string path = folder.file("no/such");
    using Open = int (*)(const char*, FILE**);
    const std::pair<Open, std::vector<std::string>> cases[] = {
        {SysFileCreate,
         {"SysFileExists [" + path + "] return FALSE", "SysFileCreate [" + path + "] error [2]"}},
        {SysFileOpen, {"SysFileOpen [" + path + "]", "SysFileOpen [" + path + "] error [2]"}},
        {SysFileOpenRead,
         {"SysFileOpenRead [" + path + "]", "SysFileOpenRead [" + path + "] error [2]"}},
    };
    for (const auto& [open, traces] : cases) {
        messages.clear();
        stream = stdout;
        EXPECT_EQ(open(path.c_str(), &stream), ENOENT);
        EXPECT_EQ(stream, nullptr);
        EXPECT_EQ(messages.traces(), traces);
    }
    // Opening for reading and writing creates nothing.
    EXPECT_FALSE(folder.exists("no"));
}

TEST_F(FilePrimitives, DirectoryIsCreatedWithEveryLevel) {
    std::string path = folder.file("a/b/c");
    EXPECT_EQ(SysFileCreateDirectory(path.data()), 0);
    EXPECT_TRUE(messages.hasTrace("SysFileCreateDirectory(): Directory: [" + path + "] created"));
    messages.clear();
    EXPECT_EQ(SysFileCreateDirectory(path.data()), 0);
    EXPECT_THAT(messages.traces(), ElementsAre("SysFileExists return TRUE"));
    folder.write("file");
    std::string below = folder.file("file/below");
    EXPECT_EQ(SysFileCreateDirectory(below.data()), EEXIST);
    EXPECT_TRUE(messages.hasTrace("SysFileCreateDirectory(): Got error [17]"));
}

TEST_F(FilePrimitives, DeletedFileIsGoneAndAMissingOneCountsAsDeleted) {
    const std::string path = folder.write("f");
    EXPECT_EQ(SysFileDelete(path.c_str()), 0);
    EXPECT_FALSE(folder.exists("f"));
    EXPECT_EQ(SysFileDelete(path.c_str()), 0);
    folder.write("full/f");
    const std::string directory = folder.file("full");
    EXPECT_EQ(SysFileDelete(directory.c_str()), ENOTEMPTY);
    EXPECT_TRUE(messages.hasTrace("SysFileDelete [" + directory + "] got error [39]"));
}

TEST_F(FilePrimitives, AnyKindOfFileExistsButNotNull) {
    EXPECT_FALSE(SysFileExists(nullptr));
    EXPECT_TRUE(SysFileExists(folder.path().c_str()));
    EXPECT_TRUE(SysFileExists(folder.write("f").c_str()));
    EXPECT_FALSE(SysFileExists(""));
    EXPECT_THAT(messages.traces(),
                ElementsAre("SysFileExists return FALSE", "SysFileExists return TRUE",
                            "SysFileExists return TRUE", "SysFileExists [] return FALSE"));
}

TEST_F(FilePrimitives, CopyReplacesTheTargetWhateverTheSizes) {
    for (const std::size_t size : {0U, 1U, 8191U, 8192U, 8193U, 100000U}) {
        const std::string content(size, 'c');
        const std::string source = folder.write("source", content);
        const std::string target = folder.write("target", std::string(50000, 't'));
        messages.clear();
        EXPECT_TRUE(copy(source, target)) << size;
        EXPECT_EQ(folder.read("target"), content) << size;
        EXPECT_THAT(messages.traces(), ElementsAre("Open [" + source + "]", "Open [" + target + "]",
                                                   "Number of bytes read = " + std::to_string(size),
                                                   "SysFileCopy: return TRUE"));
    }
    EXPECT_TRUE(copy(folder.write("source", std::string(1000000, 'c')), folder.file("large")));
    EXPECT_TRUE(messages.hasTrace("SysFileCopy: 819200 bytes so far")); // a sign of life
}

TEST_F(FilePrimitives, CopyLeavesAnExistingTargetAloneWhenAsked) {
    const std::string source = folder.write("source", "new");
    const std::string target = folder.write("target", "old");
    EXPECT_FALSE(copy(source, target, TRUE));
    EXPECT_EQ(folder.read("target"), "old");
    EXPECT_TRUE(messages.hasTrace("SysFileCopy(): Failed bcs. [" + target + "] exists"));
    EXPECT_TRUE(copy(source, folder.file("fresh"), TRUE));
    EXPECT_EQ(folder.read("fresh"), "new");
}

TEST_F(FilePrimitives, CopyOntoItselfFailsAndKeepsTheFile) {
    const std::string source = folder.write("source", "precious");
    fs::create_hard_link(source, folder.file("hard"));
    fs::create_symlink(source, folder.file("soft"));
    for (const char* name : {"source", "hard", "soft"}) {
        EXPECT_FALSE(copy(source, folder.file(name))) << name;
        EXPECT_EQ(folder.read("source"), "precious") << name;
    }
}

TEST_F(FilePrimitives, CopyFailsWhenItsLastBytesDoNotReachTheDisk) {
    const std::string small = folder.write("small", "fits the buffer");
    EXPECT_FALSE(copy(small, "/dev/full"));
    EXPECT_TRUE(messages.hasTrace("Close /dev/full with error 28"));
    EXPECT_TRUE(messages.hasTrace("SysFileCopy: return FALSE"));
    const std::string large = folder.write("large", std::string(100000, 'x'));
    EXPECT_FALSE(copy(large, "/dev/full"));
    EXPECT_TRUE(messages.hasTrace("Write /dev/full with error 28"));
}

// A read error is no end of file: the loop must end all the same, and must not call it a copy.
TEST_F(FilePrimitives, CopyOfWhatCannotBeReadEndsAndFails) {
    const std::string source = folder.makeDirectory("directory");
    EXPECT_FALSE(copy(source, folder.file("target")));
    EXPECT_TRUE(messages.hasTrace("Read " + source + " with error 21"));
}

TEST_F(FilePrimitives, CopyOfASourceThatCannotBeSoughtGoesOnButFails) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "piped", 5), 5);
    close(ends[1]);
    EXPECT_FALSE(copy("/proc/self/fd/" + std::to_string(ends[0]), folder.file("target")));
    close(ends[0]);
    EXPECT_TRUE(messages.hasTrace("Seek error: 29"));
    EXPECT_TRUE(messages.hasTrace("Number of bytes read = 5"));
    EXPECT_EQ(folder.read("target"), "piped");
}

TEST_F(FilePrimitives, CopyKeepsTheSourceOpenOnlyWhenTheTargetCannotBeOpened) {
    const std::string source = folder.write("source", "x");
    const std::string unreachable = folder.file("no/target");
    const long before = openFiles();
    EXPECT_TRUE(copy(source, folder.file("target")));
    EXPECT_FALSE(copy(folder.file("missing"), folder.file("target")));
    EXPECT_FALSE(copy(source, source));
    EXPECT_FALSE(copy(source, "/dev/full"));
    EXPECT_EQ(openFiles(), before);
    EXPECT_FALSE(copy(source, unreachable));
    EXPECT_EQ(openFiles(), before + 1);
    EXPECT_TRUE(messages.hasTrace("Error opening [" + unreachable +
                                  "]: error (2): No such file or directory"));
}

// The kernel's own file system cannot flush a directory, as some network ones.
TEST(DiskFlush, ADirectoryThatCannotBeFlushedIsNoFailure) {
    const TemporaryFolder folder;
    const MessageCapture messages;
    EXPECT_EQ(flushDirectoryOf(folder.write("file").c_str()), 0);
    EXPECT_EQ(flushDirectoryOf("/proc/self/status"), 0);
    EXPECT_TRUE(messages.hasTrace("flushDirectoryOf(): directory [/proc/self] cannot be flushed "
                                  "(22): Invalid argument"));
    EXPECT_EQ(flushDirectoryOf("/no/such/file"), ENOENT);
    EXPECT_EQ(flushFile("/proc/self/status"), EINVAL);
}

TEST(PlatformStandIns, AnswerAsWithoutThePlatformsFeatures) {
    EXPECT_TRUE(OSIsArchiveAttributeSet("/missing"));
    EXPECT_EQ(OSResetArchiveAttribute("/missing"), 0);
    EXPECT_FALSE(OSIsDevice("/dev/null"));
    EXPECT_EQ(OSStrnCmpDir("/data/mail", "/data/other", 6), 0);
    EXPECT_NE(OSStrnCmpDir("/data/mail", "/DATA/mail", 6), 0);
    EXPECT_EQ(OSStrnCmpDir("a", "b", 0), 0);
    EXPECT_EQ(OSStrnCmpDir("a", "b", -1), 0);
}

} // namespace
