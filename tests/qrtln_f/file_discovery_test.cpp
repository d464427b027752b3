#include "qrt_lotus_notes/qrtln_f/file_discovery.h"

#include <sys/resource.h>

#include "tests/interface/own_process.h"
#include "tests/qrtln_f/fake_server.h"

namespace {

namespace fs = std::filesystem;

class FileDiscovery : public FakeServer {
  protected:
    // Scans for patterns without a match list, in a backup that has no notes.ini in the way.
    void scan(const std::string& patterns) {
        g_sQRTLN_Global.eI_OperationLevel = DB_LEVEL_SLCT;
        LIST_INFO* list = nullptr;
        setQueue(list, patterns);
        fillFileList(list, nullptr);
        DestroyFIFOList(list);
    }
};

TEST_F(FileDiscovery, WholeSystemIsEveryDominoFileWithItsKindAndAttachmentsLastByLevel) {
    addAll("a.njf b.dsk c.dic d.cfg e.id Mail.NSF old.ns3 t.ntf x.txt nodot m/.hidden/u.box "
           "dir.nsf/i.ns5 m/c.ncf store/z.nlo");
    // The directories of items and notes.ini come with the kind of system files; a .ns3 is prepared
    // like a database and finished like a system file.
    const std::string once = "@/data/notes.ini:1 ";
    const std::string files =
        "@/data:1 @/data/old.ns3:1 @/data/t.ntf:0 @/data/Mail.NSF:0 @/data/a.njf:1 @/data/b.dsk:1 "
        "@/data/c.dic:1 @/data/d.cfg:1 "
        "@/data/dir.nsf/i.ns5:1 @/data/dir.nsf:1 @/data/e.id:1 @/data/m/.hidden/u.box:0 "
        "@/data/m/.hidden:1 @/data/m/c.ncf:0 @/data/m:1 ";
    for (const auto level : {DB_LEVEL_COPY, DB_LEVEL_FULL, DB_LEVEL_DIFF, DB_LEVEL_INCR}) {
        SCOPED_TRACE(level);
        inOwnProcess([&] { // notes.ini comes once in a process
            g_sQRTLN_Global.eI_OperationLevel = level;
            for (const std::string& first : {once, std::string()}) {
                getNotesFileList(full("@/data").c_str(), level);
                std::string found = drain(g_sQRTLN_Global.lhNotesFileList, true, true);
                const std::string attachments = " @/data/store:1 @/data/store/z.nlo:1";
                EXPECT_EQ(found.ends_with(attachments), level != DB_LEVEL_INCR);
                if (level != DB_LEVEL_INCR) {
                    found.resize(found.size() - attachments.size());
                }
                EXPECT_THAT(split(found), testing::UnorderedElementsAreArray(split(files + first)));
            }
            EXPECT_TRUE(logged("Could not find file @/data/notes.ini"));
        });
    }
}

TEST_F(FileDiscovery, FirstMatchOfADirectoryIgnoresCaseAndLaterOnesDoNot) {
    addAll("x/a.NSF x/b.NSF x/c.nsf x/d.NSF y/A.NSF y/B.NSF");
    for (const std::string directory : {"@/data/x", "@/data/y"}) {
        std::string expected = directory;
        for (const auto& entry : fs::directory_iterator(full(directory))) {
            if (expected == directory || entry.path().extension() == ".nsf") {
                expected += " " + directory + "/" + entry.path().filename().string();
            }
        }
        scan(directory + "/*.nsf");
        EXPECT_EQ(items(), expected);
    }
}

TEST_F(FileDiscovery, WithoutDescriptorsEveryPatternIsGivenUpAndTold) {
    addAll("a/x.nsf b/y.nsf");
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit none{0, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    scan("@/data/a/x.nsf @/data/b/y.nsf");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_EQ(items(), "");
    EXPECT_EQ(logsWith("cannot be read, its files are left out (24)"), 2);
}

TEST_F(FileDiscovery, APathThatIsTooLongIsLeftOutAndToldAndTheNextIsRead) {
    std::string deep = full("@/data");
    while (deep.size() < kPathSize - 3) {
        deep += "/" + std::string(std::min<std::size_t>(200, kPathSize - 4 - deep.size()), 'd');
    }
    fs::create_directories(deep);
    addAll("b/y.nsf");
    scan(deep + " @/data/b/y.nsf");
    EXPECT_EQ(items(), "@/data/b @/data/b/y.nsf");
    EXPECT_EQ(logsWith("is too long for its files, skipped"), 1);
    EXPECT_FALSE(IsValidPattern((deep + "/deeper/y.nsf").c_str()));
}

} // namespace
