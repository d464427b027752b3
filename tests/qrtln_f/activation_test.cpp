#include "qrt_lotus_notes/qrtln_f/activation.h"

#include "tests/qrtln_f/fake_server.h"

namespace {

class Activation : public FakeServer {
  protected:
    // Notes the calls about the live database, each with its content then.
    NotesAnswer answer(const NotesCall& call) override {
        if (call.function == "NSFTakeDatabaseOffline") {
            told += "offline " + folder.read("data/m/x.nsf") + ", ";
        } else if (call.function == "NSFBringDatabaseOnline") {
            told += "online " + folder.read("data/m/x.nsf") + ", ";
        }
        return FakeServer::answer(call);
    }

    std::string told;
};

TEST_F(Activation, TakesOfflineCopiesDeletesAndBringsOnline) {
    const std::string offline = "NSFTakeDatabaseOffline", online = "NSFBringDatabaseOnline";
    const std::string long1025 = "/" + std::string(1025, 'd');
    const struct {
        std::string file, directory;
        const char* live; // content of the live database, "": there is none
        std::string failing;
        const char* calls;
        const char* after; // content of the live database
        bool kept;         // the restored file
        bool works = false;
    } cases[] = {
        {"@/tmp/x.nsf", "@/data/m/", "old", "", "offline old, online new, ", "new", false, true},
        {"@/tmp/x.nsf", "@/data/m", "", "", "online new, ", "new", false, true},
        {"@/tmp/x.nsf", "@/data/m", "old", offline, "offline old, ", "old", true},
        {"@/tmp/x.nsf", "@/data/m", "old", online, "offline old, online new, ", "new", false},
        {"@/gone/x.nsf", "@/data/m", "old", "", "offline old, ", "old", true},
        {"@/tmp/x.nsf", long1025, "old", "", "", "old", true},
        // Restored to its place, by whatever spelling of the path: nothing is copied onto itself.
        {"@/data//m/x.nsf", "@/data/m", "old", "", "offline old, online old, ", "old", true, true},
        {"@/data/m/x.nsf", "@/data/m", "old", offline, "offline old, ", "old", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file + " to " + c.directory + " " + c.failing);
        std::filesystem::remove_all(full("@/data/m"));
        folder.write("tmp/x.nsf", "new");
        if (*c.live != '\0') {
            folder.write("data/m/x.nsf", c.live);
        }
        failures = {{c.failing, 9}};
        told.clear();
        messages.clear();
        EXPECT_EQ(QRTLN_Activate(full(c.file).c_str(), full(c.directory).c_str()),
                  c.works ? 3000 : 1000);
        EXPECT_EQ(told, c.calls);
        EXPECT_EQ(folder.read("data/m/x.nsf"), c.after);
        EXPECT_EQ(folder.exists("tmp/x.nsf"), c.kept);
        EXPECT_EQ(logsWith("do manually:  dbrecover RESTORE @/tmp/x.nsf @/data/m/x.nsf"),
                  c.failing == offline && c.file == "@/tmp/x.nsf" ? 1 : 0);
    }
}

} // namespace
