#include "qrt_lotus_notes/qrtln_f/activation.h"

#include <gmock/gmock.h>

#include "tests/qrtln_f/fake_server.h"
#include "tests/support/message_capture.h"

namespace {

// The server's answers, and its calls in their order with the content that it found at the path.
STATUS s_offline;
STATUS s_online;
std::string s_calls;

std::string contentOf(const char* path) {
    std::ifstream stream(path, std::ios::binary);
    return std::filesystem::is_regular_file(path) && stream
               ? std::string(std::istreambuf_iterator<char>(stream), {})
               : "(none)";
}

class Activation : public testing::Test {
  protected:
    Activation() {
        s_offline = s_online = 0;
        s_calls.clear();
        notes_api.NSFTakeDatabaseOffline = [](char* path, DWORD, DWORD) {
            s_calls += "offline " + contentOf(path);
            return s_offline;
        };
        notes_api.NSFBringDatabaseOnline = [](char* path, DWORD) {
            s_calls += std::string(s_calls.empty() ? "" : ", ") + "online " + contentOf(path);
            return s_online;
        };
    }

    MessageCapture messages;
    FakeServer server; // resets the record but the callbacks
};

TEST_F(Activation, TakesOfflineCopiesDeletesAndBringsOnline) {
    struct Case {
        const char* what;
        const char* directory; // below the data directory
        const char* live;      // content of the live database, nullptr: neither it nor a directory
        bool restored;         // the restored file is there
        STATUS offline;
        STATUS online;
        int result;
        const char* calls;
        const char* after; // content of the live database
        bool kept;         // the restored file
        bool warned;
    };
    const Case cases[] = {
        {"over a live one", "m", "old", true, 0, 0, 3000, "offline old, online new", "new", false,
         false},
        {"trailing delimiter", "m/", "old", true, 0, 0, 3000, "offline old, online new", "new",
         false, false},
        {"lost", "m", nullptr, true, 0, 0, 3000, "online new", "new", false, false},
        {"in use", "m", "old", true, 5098, 0, 1000, "offline old", "old", true, true},
        {"offline fails", "m", "old", true, 9, 0, 1000, "offline old", "old", true, true},
        {"online fails", "m", "old", true, 0, 9, 1000, "offline old, online new", "new", false,
         false},
        {"nothing to copy", "m", "old", false, 0, 0, 1000, "offline old", "old", false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::filesystem::remove_all(server.data("m"));
        s_calls.clear();
        messages.clear();
        s_offline = c.offline;
        s_online = c.online;
        if (c.live != nullptr) {
            server.folder.write("data/m/x.nsf", c.live);
        }
        const std::string copy = server.folder.file("tmp/x.nsf");
        if (c.restored) {
            server.folder.write("tmp/x.nsf", "new");
        }
        EXPECT_EQ(QRTLN_Activate(copy.c_str(), server.data(c.directory).c_str()), c.result);
        EXPECT_EQ(s_calls, c.calls);
        EXPECT_EQ(server.folder.read("data/m/x.nsf"), c.after);
        EXPECT_EQ(server.folder.exists("tmp/x.nsf"), c.kept);
        EXPECT_EQ(messages.hasLog("QRTLN_Activate(): WARNING: Please shutdown notes server and do "
                                  "manually:  dbrecover RESTORE " +
                                  copy + " " + server.data("m/x.nsf")),
                  c.warned);
        takeErrorText();
    }
}

TEST_F(Activation, AFailedCopyLeavesTheDatabaseOfflineAndTheCopyInPlace) {
    const std::string copy = server.folder.write("tmp/x.nsf", "new");
    server.folder.makeDirectory("data/m/x.nsf"); // cannot be opened for writing
    EXPECT_EQ(QRTLN_Activate(copy.c_str(), server.data("m").c_str()), 1000);
    EXPECT_EQ(s_calls, "offline (none)");
    EXPECT_TRUE(messages.hasTrace("QRTLN_Activate(): Copy of file [" + copy + "] to [" +
                                  server.data("m/x.nsf") + "] FAILED"));
    EXPECT_EQ(server.folder.read("tmp/x.nsf"), "new");
}

// By whatever spelling of the path: nothing is copied onto itself, nothing deleted.
TEST_F(Activation, AFileRestoredToItsPlaceIsOnlyTakenOfflineAndBroughtOnline) {
    const std::string live = server.folder.write("data/m/x.nsf", "new");
    for (const std::string& file : {live, server.data("/m//x.nsf")}) {
        for (const STATUS offline : {0, 5098}) {
            s_calls.clear();
            messages.clear();
            s_offline = offline;
            EXPECT_EQ(QRTLN_Activate(file.c_str(), server.data("m").c_str()),
                      offline == 0 ? 3000 : 1000);
            EXPECT_EQ(s_calls, offline == 0 ? "offline new, online new" : "offline new");
            EXPECT_EQ(server.folder.read("data/m/x.nsf"), "new");
            for (const std::string& line : messages.logs()) {
                EXPECT_THAT(line, testing::Not(testing::HasSubstr("WARNING")));
            }
        }
    }
}

TEST_F(Activation, WithoutAPlaceForItNothingIsTouched) {
    const std::string copy = server.folder.write("tmp/x.nsf", "new");
    for (const std::string& directory : {std::string(), "/" + std::string(1025, 'd')}) {
        EXPECT_EQ(QRTLN_Activate(copy.c_str(), directory.c_str()), 1000);
        EXPECT_THAT(takeErrorText(), testing::StartsWith("QRTLN_Activate(): "));
    }
    EXPECT_TRUE(s_calls.empty());
    EXPECT_EQ(server.folder.read("tmp/x.nsf"), "new");
}

} // namespace
