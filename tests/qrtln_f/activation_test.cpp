#include "qrt_lotus_notes/qrtln_f/activation.h"

#include "tests/qrtln_f/fake_server.h"

namespace {

// The server's answers, and its calls in their order with the content that it found at the path.
STATUS s_offline;
STATUS s_online;
std::string s_calls;

std::string contentOf(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return std::filesystem::is_regular_file(path)
               ? std::string(std::istreambuf_iterator<char>(stream), {})
               : "(none)";
}

class Activation : public FakeServer {};

TEST_F(Activation, TakesOfflineCopiesDeletesAndBringsOnline) {
    notes_api.NSFTakeDatabaseOffline = [](char* path, DWORD, DWORD) {
        s_calls += "offline " + contentOf(path) + ", ";
        return s_offline;
    };
    notes_api.NSFBringDatabaseOnline = [](char* path, DWORD) {
        s_calls += "online " + contentOf(path) + ", ";
        return s_online;
    };
    const std::string long1025 = "/" + std::string(1025, 'd');
    const struct {
        std::string file, directory;
        const char* live; // content of the live database, "": there is none
        STATUS offline, online;
        int result;
        const char* calls;
        const char* after; // content of the live database
        bool kept;         // the restored file
        bool warned = false;
    } cases[] = {
        {"@/tmp/x.nsf", "@/data/m/", "old", 0, 0, 3000, "offline old, online new, ", "new", false},
        {"@/tmp/x.nsf", "@/data/m", "", 0, 0, 3000, "online new, ", "new", false},
        {"@/tmp/x.nsf", "@/data/m", "old", 9, 0, 1000, "offline old, ", "old", true, true},
        {"@/tmp/x.nsf", "@/data/m", "old", 0, 9, 1000, "offline old, online new, ", "new", false},
        {"@/gone/x.nsf", "@/data/m", "old", 0, 0, 1000, "offline old, ", "old", true},
        {"@/tmp/x.nsf", long1025, "old", 0, 0, 1000, "", "old", true},
        // Restored to its place, by whatever spelling of the path: nothing is copied onto itself.
        {"@/data/m/x.nsf", "@/data/m", "old", 0, 0, 3000, "offline old, online old, ", "old", true},
        {"@/data//m/x.nsf", "@/data/m", "old", 9, 0, 1000, "offline old, ", "old", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file + " to " + c.directory);
        std::filesystem::remove_all(full("@/data/m"));
        folder.write("tmp/x.nsf", "new");
        if (*c.live != '\0') {
            folder.write("data/m/x.nsf", c.live);
        }
        s_offline = c.offline;
        s_online = c.online;
        s_calls.clear();
        messages.clear();
        EXPECT_EQ(QRTLN_Activate(full(c.file).c_str(), full(c.directory).c_str()), c.result);
        EXPECT_EQ(s_calls, c.calls);
        EXPECT_EQ(folder.read("data/m/x.nsf"), c.after);
        EXPECT_EQ(folder.exists("tmp/x.nsf"), c.kept);
        EXPECT_EQ(logged("QRTLN_Activate(): WARNING: Please shutdown notes server and do manually: "
                         " dbrecover RESTORE @/tmp/x.nsf @/data/m/x.nsf"),
                  c.warned);
    }
}

} // namespace
