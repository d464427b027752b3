// The transaction log: styles, extents, and archiving them.
#include "support.h"

#include <gtest/gtest.h>

#include <cstring>

namespace fs = std::filesystem;

namespace simulator_tests {
namespace {

constexpr const char* kExtentSize = "65536";

/// Fills the log; two of these records fit in one extent.
void fillLog(const TestServer& server, int records) {
    for (int i = 0; i < records; ++i) {
        dominoSim({"put", server.root(), "names.nsf", "--text", std::string(30000, 'x')});
    }
}

std::vector<DWORD> readyLogs(std::vector<std::string>* paths = nullptr) {
    std::vector<DWORD> numbers;
    UNIVERSALNOTEID id = {};
    DWORD number = 0;
    char path[1028] = {};
    for (STATUS status = NSFGetFirstLogToArchive(&id, &number, path); status == 0;
         status = NSFGetNextLogToArchive(&id, &number, path)) {
        numbers.push_back(number);
        if (paths != nullptr) {
            paths->emplace_back(path);
        }
    }
    return numbers;
}

TEST(LogStyles, DecideWhatIsLoggedKeptAndReady) {
    struct Case {
        const char* name;
        STATUS styleStatus;
        WORD style;               // 99: left alone
        std::size_t readyExtents; // after three extents were filled
        std::size_t filesKept;    // extents in the folder then; 4 fit in a ring
        BOOL logged;
    };
    for (const Case& expected : {Case{"archive", 0, 1, 3, 4, 1}, Case{"circular", 0, 0, 0, 4, 1},
                                 Case{"linear", 0, 2, 0, 4, 1}, Case{"none", 5119, 99, 0, 0, 0}}) {
        SCOPED_TRACE(expected.name);
        const TestServer server({"--style", expected.name, "--extent-size", kExtentSize});
        WORD style = 99;
        EXPECT_EQ(NSFGetTransLogStyle(&style), expected.styleStatus);
        EXPECT_EQ(style, expected.style);
        const auto [logged, dbiid] = logInfo("names.nsf");
        EXPECT_EQ(logged, expected.logged);
        const UNIVERSALNOTEID none = {};
        EXPECT_EQ(std::memcmp(&dbiid, &none, sizeof none) != 0, expected.logged == 1);
        fillLog(server, 7);
        EXPECT_EQ(readyLogs().size(), expected.readyExtents);
        std::size_t files = 0;
        for (const auto& entry : fs::directory_iterator(server.root() + "/logs")) {
            files += entry.path().extension() == ".TXN" ? 1 : 0;
        }
        EXPECT_EQ(files, expected.filesKept);
        EXPECT_EQ(dominoSimJson({"show", server.root(), "names.nsf"})["integrity"], "ok");
    }
}

TEST(ArchiveLog, GivesOutFullExtentsThenTheActiveOneAndRemovesWhatIsDone) {
    const TestServer server({"--extent-size", kExtentSize});
    fillLog(server, 7);
    std::vector<std::string> paths;
    EXPECT_EQ(readyLogs(&paths), (std::vector<DWORD>{1, 2, 3}));
    UNIVERSALNOTEID id = {};
    DWORD number = 0;
    char path[1028] = {};
    EXPECT_EQ(NSFGetNextLogToArchive(&id, &number, path), 5086);
    EXPECT_EQ(number, 4U);
    EXPECT_EQ(path, server.root() + "/logs/S0000004.TXN");

    // Not the active one, not that of another log; out of order is allowed.
    EXPECT_NE(NSFDoneArchivingLog(&id, &number), 0);
    DWORD two = 2;
    UNIVERSALNOTEID other = {};
    EXPECT_NE(NSFDoneArchivingLog(&other, &two), 0);
    EXPECT_EQ(NSFDoneArchivingLog(&id, &two), 0);
    EXPECT_FALSE(fs::exists(paths[1]));
    EXPECT_NE(NSFDoneArchivingLog(&id, &two), 0);
    EXPECT_EQ(readyLogs(), (std::vector<DWORD>{1, 3}));
    DWORD one = 1;
    EXPECT_EQ(NSFDoneArchivingLog(&id, &one), 0);
    EXPECT_EQ(readyLogs(), (std::vector<DWORD>{3}));
}

// After a restore the control file is lost, or older than the extents: no record may be
// overwritten.
TEST(ArchiveLog, FindsRecordsThatItsControlFileDoesNotKnow) {
    const TestServer server({"--extent-size", kExtentSize});
    fillLog(server, 1);
    const std::string control = server.root() + "/logs/nlogctrl.lfh";
    fs::copy_file(control, server.folder / "control");
    fillLog(server, 4);
    const auto before = dominoSimJson({"logs", server.root()});
    fs::remove(control);
    EXPECT_EQ(dominoSimJson({"logs", server.root()})["nextRecord"], before["nextRecord"]);
    fs::copy_file(server.folder / "control", control, fs::copy_options::overwrite_existing);
    fillLog(server, 1);
    const auto logs = dominoSimJson({"logs", server.root()});
    EXPECT_EQ(logs["nextRecord"], 7);
    EXPECT_EQ(logs["activeExtent"], 3);
    EXPECT_EQ(logs["logId"], before["logId"]);
}

TEST(ArchiveLog, ThatIsDamagedIsAnErrorAndNotANewLog) {
    const TestServer server;
    const std::string control = server.root() + "/logs/nlogctrl.lfh";
    fs::resize_file(control, 100);
    dominoSim({"put", server.root(), "names.nsf"}, 1);
    EXPECT_EQ(fs::file_size(control), 100U);
}

} // namespace
} // namespace simulator_tests
