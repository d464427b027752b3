// Roll-forward recovery from the extents of the transaction log.
#include "support.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>

namespace fs = std::filesystem;

namespace simulator_tests {
namespace {

constexpr const char* kExtentSize = "65536";
constexpr DWORD kNewDbiid = 2;
constexpr DWORD kKeepDbiid = 4;
constexpr STATUS kLogDamaged = 16139;
constexpr STATUS kExtentMissing = 16150;
constexpr STATUS kWrongExtent = 16151;
constexpr STATUS kLogGap = 16152;
constexpr STATUS kLater = 16153;
constexpr std::int64_t kTicksPerDay = 8640000;
constexpr std::int64_t kJulianDayOf1970 = 2440588;

std::vector<DWORD> g_asked;                               // extents that the callback was asked for
STATUS (*g_provide)(DWORD number, const char*) = nullptr; // its answer; 0 when not set
std::string g_folder;                                     // for what g_provide does

STATUS noteAndProvide(UNIVERSALNOTEID*, DWORD number, char* path) {
    g_asked.push_back(number);
    return g_provide == nullptr ? STATUS{0} : g_provide(number, path);
}

struct Outcome {
    STATUS status = 0;
    WORD index = 0;
    bool operator==(const Outcome& other) const {
        return status == other.status && index == other.index;
    }
    friend std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
        return out << "status " << outcome.status << ", database " << outcome.index;
    }
};

/// until is in hundredths of a second since 1970.
Outcome recover(const std::vector<std::string>& names, DWORD flags = kKeepDbiid,
                std::optional<std::int64_t> until = std::nullopt) {
    std::string list;
    for (const std::string& name : names) {
        list += name + '\0';
    }
    TIMEDATE time = {};
    if (until) {
        time.Innards[0] = static_cast<DWORD>(*until % kTicksPerDay);
        time.Innards[1] = static_cast<DWORD>(*until / kTicksPerDay + kJulianDayOf1970);
    }
    g_asked.clear();
    Outcome outcome{0, 99};
    outcome.status = NSFRecoverDatabases(list.data(), noteAndProvide, flags, &outcome.index,
                                         until ? &time : nullptr);
    return outcome;
}

nlohmann::json show(const fs::path& file) {
    return dominoSimJson({"show", file.string()});
}

/// A server with small extents and an archive-style log; copies of two databases that were changed
/// since, over several extents: names.nsf up to the last extent, mail.box in the first ones only.
class Recover : public ::testing::Test {
  protected:
    explicit Recover(const std::string& style = "archive")
        : server({"--style", style, "--extent-size", kExtentSize}) {
        g_provide = nullptr;
        for (const char* name : {"names.nsf", "mail.box"}) {
            dominoSim({"saved", server.root(), name});
            fs::copy_file(server.data(name), copyOf(name));
        }
        for (int i = 0; i < 3; ++i) {
            put("mail.box");
            put("names.nsf");
        }
        dominoSim({"delete", server.root(), "names.nsf", "2294", "2302"});
        put("names.nsf");
        markUnread("names.nsf");
        live = show(server.data("names.nsf"));
    }

    std::string copyOf(const std::string& name) const {
        return (server.folder / ("copy-" + name)).string();
    }
    std::string extent(int number) const {
        char name[32] = {};
        std::snprintf(name, sizeof name, "/logs/S%07d.TXN", number);
        return server.root() + name;
    }
    /// Two of these fit in an extent.
    void put(const std::string& name) const {
        dominoSim({"put", server.root(), name, "--text", std::string(30000, 'x')});
    }
    static void markUnread(const std::string& name) {
        const OpenDb db(name);
        std::string user = "CN=Somebody";
        const auto length = static_cast<WORD>(user.size());
        DHANDLE before = 0;
        DHANDLE after = 0;
        ASSERT_EQ(NSFDbGetUnreadNoteTable(db.handle, user.data(), length, 1, &before), 0);
        ASSERT_EQ(IDTableCopy(before, &after), 0);
        BOOL inserted = 0;
        ASSERT_EQ(IDInsert(after, 2298, &inserted), 0);
        ASSERT_EQ(IDInsert(after, 2306, &inserted), 0);
        ASSERT_EQ(NSFDbSetUnreadNoteTable(db.handle, user.data(), length, 1, before, after), 0);
        DHANDLE less = 0; // and one of them read again
        ASSERT_EQ(IDTableCopy(before, &less), 0);
        ASSERT_EQ(IDInsert(less, 2306, &inserted), 0);
        ASSERT_EQ(NSFDbSetUnreadNoteTable(db.handle, user.data(), length, 1, after, less), 0);
        for (const DHANDLE table : {before, after, less}) {
            EXPECT_EQ(IDDestroyTable(table), 0);
        }
    }
    /// Archives every full extent into a folder.
    void archive() const {
        fs::create_directories(server.folder / "archive");
        UNIVERSALNOTEID id = {};
        DWORD number = 0;
        char path[1028] = {};
        while (NSFGetFirstLogToArchive(&id, &number, path) == 0) {
            fs::copy_file(path, server.folder / "archive" / fs::path(path).filename());
            ASSERT_EQ(NSFDoneArchivingLog(&id, &number), 0);
        }
    }

    TestServer server;
    nlohmann::json live;
};

TEST_F(Recover, CopyBecomesTheLiveDatabaseWithDeletionsAndUnreadMarks) {
    EXPECT_EQ(recover({copyOf("names.nsf"), copyOf("mail.box")}), (Outcome{0, 0}));
    EXPECT_EQ(g_asked, (std::vector<DWORD>{1, 2, 3, 4}));
    for (const char* name : {"names.nsf", "mail.box"}) {
        const auto copy = show(copyOf(name));
        const auto original = show(server.data(name));
        for (const char* field :
             {"digest", "commit", "dbiid", "lastRecord", "lastExtent", "integrity"}) {
            EXPECT_EQ(copy[field], original[field]) << name << " " << field;
        }
    }
    // The next change of a note must not get the id of one that was replayed.
    EXPECT_EQ(recover({copyOf("names.nsf")}), (Outcome{0, 0})) << "nothing is left to do";
    EXPECT_TRUE(g_asked.empty());
}

} // namespace
} // namespace simulator_tests
