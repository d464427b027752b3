#include "qrt_lotus_notes/qrtln_o/disk_flush.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"

#include <cerrno>

#include <unistd.h>

#include "tests/qrtln_lower/operation_test.h"

namespace fs = std::filesystem;

namespace {

using FilePrimitives = OperationTest;

TEST_F(FilePrimitives, CreatedFileKeepsWhatItDoesNotOverwriteAndAShortReadReturnsErrno) {
    const std::string path = folder.write("f", "0123456789");
    FILE* stream = nullptr;
    ASSERT_EQ(SysFileCreate(path.c_str(), &stream), 0);
    EXPECT_EQ(SysFileSeek(stream, 4, 0), 0);
    EXPECT_EQ(SysFileWrite(stream, "abc", 3), 0);
    EXPECT_EQ(SysFileClose(stream), 0);
    EXPECT_EQ(folder.read("f"), "0123abc789");
    ASSERT_EQ(SysFileOpenRead(path.c_str(), &stream), 0);
    char data[16];
    for (const int before : {0, ENOMEM}) {
        errno = before;
        EXPECT_EQ(SysFileRead(stream, data, 16), before);
    }
    EXPECT_TRUE(messages.hasTrace("SysFileRead error [12]"));
    EXPECT_EQ(SysFileClose(stream), 0);
}

TEST_F(FilePrimitives, FailuresGiveTheirErrorNumber) {
    FILE* stream = stdout;
    EXPECT_EQ(SysFileOpen("/no/such", &stream), ENOENT);
    EXPECT_EQ(stream, nullptr);
    // A full disk shows at the write, or at the close.
    for (const std::size_t size : {std::size_t{8}, 3 * kStreamBufferSize}) {
        const std::string text(size, 'x');
        ASSERT_EQ(SysFileOpen("/dev/full", &stream), 0);
        EXPECT_EQ(SysFileWrite(stream, text.data(), static_cast<DWORD>(size)),
                  size == 8 ? 0 : ENOSPC);
        EXPECT_EQ(SysFileClose(stream), size == 8 ? ENOSPC : 0);
    }
    EXPECT_TRUE(messages.hasTrace("SysFileWrite error [28]"));
    EXPECT_EQ(OSResetArchiveAttribute("/missing"), 0);
    EXPECT_FALSE(SysFileExists(nullptr) || OSIsDevice("/dev/null"));
    // The kernel's own file system cannot flush a directory, as some network ones: no failure.
    EXPECT_EQ(flushDirectoryOf("/proc/self/status"), 0);
    EXPECT_EQ(flushDirectoryOf("/no/such/file"), ENOENT);
    EXPECT_EQ(flushFile("/proc/self/status"), EINVAL);
}

TEST_F(FilePrimitives, CopyReplacesItsTargetOrFailsAndKeepsItsSource) {
    folder.write("source", "fits the buffer");
    folder.write("large", std::string(1000000, 'x'));
    fs::create_symlink(folder.file("source"), folder.file("link"));
    const auto openFiles = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const struct {
        const char *source, *target;
        std::string told; // the trace says at which step it failed
        BOOL failsIfExists = FALSE;
        BOOL copies = FALSE;
        long leftOpen = 0;
    } cases[] = {
        {"@/large", "@/target", "SysFileCopy: 819200 bytes so far", FALSE, TRUE}, // a sign of life
        {"@/source", "@/target", "Number of bytes read = 15", FALSE, TRUE},
        {"@/source", "@/fresh", "SysFileCopy: return TRUE", TRUE, TRUE},
        {"@/large", "@/target", "SysFileCopy(): Failed bcs. [@/target] exists", TRUE},
        {"@/source", "@/link", "SysFileCopy(): [@/link] is the source itself, nothing copied"},
        {"@/source", "/dev/full", "Close /dev/full with error 28"},
        {"@/large", "/dev/full", "Write /dev/full with error 28"},
        {"@/missing", "@/target", "SysFileCopy: return FALSE"},
        {"@", "@/other", "Number of bytes read = 0"}, // a directory
        // The source stays open when the target cannot be opened: hosts have always seen it so.
        {"@/source", "@/no/target",
         "Error opening [@/no/target]: error (2): No such file or directory", FALSE, FALSE, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.told);
        messages.clear();
        const std::string source = full(c.source);
        const long before = openFiles();
        EXPECT_EQ(SysFileCopy(source.c_str(), full(c.target).c_str(), c.failsIfExists), c.copies);
        EXPECT_EQ(openFiles(), before + c.leftOpen);
        EXPECT_EQ(folder.read("source"), "fits the buffer");
        EXPECT_TRUE(!c.copies || folder.read(c.target + 2) == folder.read(c.source + 2));
        EXPECT_TRUE(messages.hasTrace(full(c.told)));
        EXPECT_TRUE(c.failsIfExists || messages.hasTrace("Open [" + source + "]"));
    }
    EXPECT_EQ(folder.read("target"), "fits the buffer");
    // A source that cannot be sought is copied all the same, as far as it can be had.
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "piped", 5), 5);
    close(ends[1]);
    const std::string piped = "/proc/self/fd/" + std::to_string(ends[0]);
    EXPECT_FALSE(SysFileCopy(piped.c_str(), folder.file("target").c_str(), FALSE));
    close(ends[0]);
    EXPECT_EQ(folder.read("target"), "piped");
}

} // namespace
