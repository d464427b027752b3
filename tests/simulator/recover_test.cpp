// Roll-forward recovery from the extents of the transaction log, and what killed writers leave.
#include "tests/simulator/support.h"

#include <csignal>
#include <fstream>
#include <optional>

namespace simulator_tests {
namespace {

constexpr DWORD kNewDbiid = 2;
constexpr DWORD kKeepDbiid = 4;
constexpr STATUS kLogDamaged = 16139;
constexpr STATUS kExtentMissing = 16150;
constexpr STATUS kWrongExtent = 16151;
constexpr STATUS kLogGap = 16152;
constexpr STATUS kLater = 16153;

DWORD g_refused; // the extent that the callback does not provide

STATUS provide(UNIVERSALNOTEID*, DWORD number, char*) {
    return number == g_refused ? 1 : 0;
}

using Outcome = std::pair<STATUS, WORD>; // and the number of the database

Outcome recover(const std::vector<std::string>& names, DWORD flags = kKeepDbiid,
                std::optional<TIMEDATE> until = std::nullopt) {
    std::string list;
    for (const std::string& name : names) {
        list += name + '\0';
    }
    Outcome outcome{0, 99};
    outcome.first = NSFRecoverDatabases(list.data(), provide, flags, &outcome.second,
                                        until ? &*until : nullptr);
    return outcome;
}

// A server with an archive-style log; copies of two databases that were changed since, over several
// extents: names.nsf up to the last extent, mail.box in the first ones only.
struct Recover : ::testing::Test {
    Recover() {
        g_refused = 0;
        server.command("saved", "names.nsf");
        server.command("saved", "mail.box");
        fs::copy_file(server.data("names.nsf"), names);
        fs::copy_file(server.data("mail.box"), mail);
        for (int i = 0; i < 3; ++i) {
            server.command("put", "mail.box " + kBigChange);
            server.command("put", "names.nsf " + kBigChange);
        }
        server.command("delete", "names.nsf 2294 2302");
        server.command("put", "names.nsf " + kBigChange);

        dominoSim("init " + other);
        dominoSim("put " + other + " names.nsf");
    }

    std::string extent(int number) const {
        return server.root() + "/logs/S000000" + std::to_string(number) + ".TXN";
    }
    void damage(int number, std::streamoff at) const {
        std::fstream stream(extent(number), std::ios::in | std::ios::out | std::ios::binary);
        stream.seekp(at) << "damage";
    }

    TestServer server{std::string("--style archive ") + kSmallExtents};
    std::string names = server.folder.file("copy-names.nsf");
    std::string mail = server.folder.file("copy-mail.box");
    std::string other = server.folder.file("other"); // another server
};

TEST_F(Recover, ThatFailsNamesTheDatabaseAndChangesNothing) {
    struct Case {
        const char* title;
        Outcome outcome; // of a recovery of mail.box and names.nsf
        std::function<void()> harm;
        std::optional<TIMEDATE> until = std::nullopt;
    };
    const Case cases[] = {
        {"both need an extent that is refused", {kExtentMissing, 1}, [] { g_refused = 3; }},
        {"one needs an extent that is refused", {kExtentMissing, 2}, [] { g_refused = 4; }},
        {"an extent is not where the callback says it is",
         {kExtentMissing, 1},
         [&] { fs::remove(extent(2)); }},
        {"a record in the middle is damaged", {kLogDamaged, 1}, [&] { damage(2, 3000); }},
        {"the last record that one needs is damaged", {kLogDamaged, 2}, [&] { damage(3, 40000); }},
        {"an extent is another", {kWrongExtent, 1}, [&] { replace(extent(1), extent(2)); }},
        {"an extent is of another log",
         {kWrongExtent, 1},
         [&] { replace(other + "/logs/S0000001.TXN", extent(1)); }},
        {"the log does not continue the database",
         {kLogGap, 2},
         [&] { changeFile(names, "UPDATE header SET commit_number=commit_number+1"); }},
        {"a database is missing", {259, 2}, [&] { fs::remove(names); }},
        {"the time is before the backup", {kLater, 1}, [] {}, TIMEDATE{{0, 2440588}}},
    };
    const std::string logs = server.root() + "/logs";
    const std::string mailBefore = qrtln::test::read_file(mail);
    const std::string namesBefore = qrtln::test::read_file(names);
    fs::copy(logs, server.folder.file("logs"));
    for (const Case& failure : cases) {
        SCOPED_TRACE(failure.title);
        failure.harm();
        const std::string harmed = qrtln::test::read_file(names);
        EXPECT_EQ(recover({mail, names}, kNewDbiid, failure.until), failure.outcome);
        EXPECT_TRUE(qrtln::test::read_file(mail) == mailBefore);
        EXPECT_TRUE(qrtln::test::read_file(names) == harmed);
        g_refused = 0;
        server.folder.write("copy-names.nsf", namesBefore);
        fs::copy(server.folder.file("logs"), logs,
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    }
    EXPECT_EQ(recover({mail, names}), (Outcome{0, 0})) << "nothing else is in the way";
}

} // namespace
} // namespace simulator_tests
