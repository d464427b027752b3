// Roll-forward recovery from the extents of the transaction log.
#include "support.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>

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

DWORD g_refused; // the extent that the callback does not provide

STATUS provide(UNIVERSALNOTEID*, DWORD number, char*) {
    return number == g_refused ? 1 : 0;
}

using Outcome = std::pair<STATUS, WORD>; // and the number of the database

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
    Outcome outcome{0, 99};
    outcome.first =
        NSFRecoverDatabases(list.data(), provide, flags, &outcome.second, until ? &time : nullptr);
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
        g_refused = 0;
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
    TestServer server;
    nlohmann::json live;
};

struct FailureCase {
    const char* title;
    STATUS status;
    WORD index; ///< in the list mail.box, names.nsf
    std::function<void(const TestServer&, const std::string& names)> harm;
    std::optional<std::int64_t> until = std::nullopt;
};

void overwrite(const std::string& file, std::streamoff at, const std::string& bytes) {
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp(at);
    stream << bytes;
}

void setInHeader(const fs::path& database, const std::string& assignment) {
    sqlite3* connection = nullptr;
    ASSERT_EQ(sqlite3_open(database.c_str(), &connection), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(connection, ("UPDATE header SET " + assignment).c_str(), nullptr,
                           nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(connection);
}

std::string logFile(const TestServer& server, const std::string& number) {
    return server.root() + "/logs/S000000" + number + ".TXN";
}

std::vector<FailureCase> failures() {
    const auto refuse = [](DWORD number) {
        return [number](const TestServer&, const std::string&) { g_refused = number; };
    };
    return {
        {"ExtentThatBothNeedIsRefused", kExtentMissing, 1, refuse(3)},
        {"ExtentThatOneNeedsIsRefused", kExtentMissing, 2, refuse(4)},
        {"ExtentIsNotWhereTheCallbackSaysItIs", kExtentMissing, 1,
         [](const TestServer& server, const std::string&) {
             dominoSim({"lose", server.root(), "--extent", "2"});
         }},
        {"RecordInTheMiddleIsDamaged", kLogDamaged, 1,
         [](const TestServer& server, const std::string&) {
             overwrite(logFile(server, "2"), 3000, "damage");
         }},
        {"LastRecordThatOneNeedsIsDamaged", kLogDamaged, 2,
         [](const TestServer& server, const std::string&) {
             overwrite(logFile(server, "3"), 40000, "damage");
         }},
        {"HeaderOfAnExtentIsDamaged", kLogDamaged, 1,
         [](const TestServer& server, const std::string&) {
             overwrite(logFile(server, "2"), 20, "damage");
         }},
        {"ExtentIsAnother", kWrongExtent, 1,
         [](const TestServer& server, const std::string&) {
             fs::copy_file(logFile(server, "1"), logFile(server, "2"),
                           fs::copy_options::overwrite_existing);
         }},
        {"ExtentIsOfAnotherLog", kWrongExtent, 1,
         [](const TestServer& server, const std::string&) {
             const std::string other = (server.folder / "other").string();
             dominoSim({"init", other});
             dominoSim({"put", other, "names.nsf"});
             fs::copy_file(other + "/logs/S0000001.TXN", logFile(server, "1"),
                           fs::copy_options::overwrite_existing);
         }},
        {"LogDoesNotContinueTheDatabase", kLogGap, 2,
         [](const TestServer&, const std::string& names) {
             setInHeader(names, "commit_number=commit_number+1");
         }},
        {"DatabaseIsMissing", 259, 2,
         [](const TestServer&, const std::string& names) { fs::remove(names); }},
        {"FileIsNoDatabase", 513, 2,
         [](const TestServer&, const std::string& names) {
             std::ofstream(names, std::ios::trunc) << std::string(500, 'x');
         }},
        {"TimeIsBeforeTheBackup", kLater, 1, [](const TestServer&, const std::string&) {}, 0},
    };
}

class RecoveryFails : public Recover, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(RecoveryFails, NamesTheDatabaseAndChangesNothing) {
    const FailureCase& failure = GetParam();
    failure.harm(server, copyOf("names.nsf"));
    const std::string mail = readFile(copyOf("mail.box"));
    const std::string names = readFile(copyOf("names.nsf"));
    EXPECT_EQ(recover({copyOf("mail.box"), copyOf("names.nsf")}, kNewDbiid, failure.until),
              (Outcome{failure.status, failure.index}));
    EXPECT_TRUE(readFile(copyOf("mail.box")) == mail);
    EXPECT_TRUE(readFile(copyOf("names.nsf")) == names);
}

INSTANTIATE_TEST_SUITE_P(When, RecoveryFails, ::testing::ValuesIn(failures()),
                         [](const auto& test) { return std::string(test.param.title); });

TEST_F(Recover, RefusesADatabaseInUseAndNamesThatMakeNoSense) {
    const std::string names = copyOf("names.nsf");
    const std::string mail = copyOf("mail.box");
    {
        const OpenDb db(names);
        EXPECT_EQ(recover({mail, names}), (Outcome{5098, 2}));
    }
    {
        const Holder holder(server, "names.nsf");
        EXPECT_EQ(recover({mail, "names.nsf"}), (Outcome{5098, 2}));
    }
    constexpr STATUS kInvalidArgument = 16130;
    EXPECT_EQ(recover({}), (Outcome{kInvalidArgument, 0}));
    EXPECT_EQ(recover({names}, 0), (Outcome{kInvalidArgument, 0}));
    EXPECT_EQ(recover({names}, kNewDbiid | kKeepDbiid), (Outcome{kInvalidArgument, 0}));
    EXPECT_EQ(recover({names, mail, names}), (Outcome{kInvalidArgument, 3}));
}

TEST_F(Recover, AnswersForTheFirstUnknownDatabaseAndRecoversTheOthers) {
    const std::string other = (server.folder / "other").string();
    dominoSim({"init", other});
    dominoSim({"create", server.root(), "plain.nsf", "--unlogged"});
    dominoSim({"put", server.root(), "plain.nsf"});
    const std::string foreign = other + "/data/names.nsf";
    const std::string before = readFile(foreign);
    EXPECT_EQ(recover({copyOf("mail.box"), foreign, copyOf("names.nsf"), "plain.nsf"}),
              (Outcome{5114, 2}));
    EXPECT_EQ(show(copyOf("names.nsf"))["digest"], live["digest"]);
    EXPECT_EQ(show(copyOf("mail.box"))["digest"], show(server.data("mail.box"))["digest"]);
    EXPECT_TRUE(readFile(foreign) == before);
}

struct KillCase {
    const char* title;
    bool inPlace;  ///< an older copy lies in the place of the original, which is offline
    bool replaced; ///< and is replaced by the copy again after the kill
};

class KilledRecovery : public Recover, public ::testing::WithParamInterface<KillCase> {};

/// Recovers in a process that dies when it makes a database longer than it is: with pages written
/// and not committed.
void recoverUntilKilled(const fs::path& database) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        const rlim_t size = fs::file_size(database);
        const struct rlimit limit = {size, size};
        ::signal(SIGXFSZ, SIG_DFL);
        ::setrlimit(RLIMIT_FSIZE, &limit);
        recover({database.string()});
        std::_Exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the recovery was not killed";
}

TEST_P(KilledRecovery, IsRolledBackAndTheSecondOneEndsRight) {
    const std::string copy = copyOf("names.nsf");
    const std::string name = GetParam().inPlace ? server.data("names.nsf").string() : copy;
    std::string online = "names.nsf";
    if (GetParam().inPlace) {
        ASSERT_EQ(NSFTakeDatabaseOffline(online.data(), 0, 0), 0);
        fs::copy_file(copy, name, fs::copy_options::overwrite_existing);
    }
    const std::string before = readFile(name);
    ASSERT_NO_FATAL_FAILURE(recoverUntilKilled(name));
    EXPECT_FALSE(readFile(name) == before) << "nothing was half written";
    if (GetParam().replaced) {
        fs::remove(name);
        std::ofstream(name, std::ios::binary) << before;
    }
    NotesTerm();
    ASSERT_EQ(server.start(), 0);
    EXPECT_TRUE(readFile(name) == before);
    EXPECT_EQ(recover({name}), (Outcome{0, 0}));
    EXPECT_EQ(show(name)["digest"], live["digest"]);
    EXPECT_EQ(show(name)["integrity"], "ok");
    if (GetParam().inPlace) {
        EXPECT_EQ(NSFBringDatabaseOnline(online.data(), 0), 0);
        EXPECT_EQ(show(name)["dbiid"], live["dbiid"]);
    }
}

INSTANTIATE_TEST_SUITE_P(Of, KilledRecovery,
                         ::testing::Values(KillCase{"ACopy", false, false},
                                           KillCase{"ACopyRestoredAgain", false, true},
                                           KillCase{"AnOfflineDatabase", true, false}),
                         [](const auto& test) { return std::string(test.param.title); });

// A server set up anew beside restored logs remembers nothing of the log's databases.
TEST_F(Recover, FindsRecordsThatTheServerDoesNotRemember) {
    fs::remove_all(server.root() + "/state/instances");
    EXPECT_EQ(recover({copyOf("mail.box")}), (Outcome{0, 0}));
    EXPECT_EQ(show(copyOf("mail.box"))["digest"], show(server.data("mail.box"))["digest"]);
}

STATUS backupNeeded(const TestServer& server, const std::string& name) {
    DWORD needed = 0;
    std::string path = server.data(name).string();
    return NSFIsNewBackupNeeded(path.data(), 0, &needed);
}

/// Puts a recovered copy over the original, as a client does.
void putInPlace(const TestServer& server, const std::string& copy, std::string name) {
    ASSERT_EQ(NSFTakeDatabaseOffline(name.data(), 0, 0), 0);
    fs::copy_file(copy, server.data(name), fs::copy_options::overwrite_existing);
    ASSERT_EQ(NSFBringDatabaseOnline(name.data(), 0), 0);
}

// The log has records of the instance that the database now lacks, whatever the server remembers.
TEST_F(Recover, ToAnEarlierMomentBeginsANewInstanceWhenBroughtOnline) {
    dominoSim({"saved", server.root(), "names.nsf"});
    const fs::path copy = copyOf("middle");
    fs::copy_file(server.data("names.nsf"), copy);
    ::usleep(30000); // the next commits are in a later hundredth of a second
    TIMEDATE now = {};
    DHANDLE table = 0;
    {
        const OpenDb db("names.nsf");
        TimeConstant(2, &now);
        TIMEDATE until = {};
        ASSERT_EQ(NSFDbGetModifiedNoteTable(db.handle, 1, now, &until, &table), 0);
        EXPECT_EQ(IDDestroyTable(table), 0);
        now = until;
    }
    ::usleep(30000);
    put("names.nsf");
    const std::int64_t moment = now.Innards[0] + (now.Innards[1] - kJulianDayOf1970) * kTicksPerDay;
    for (const bool remembered : {true, false}) {
        const std::string again = copyOf(remembered ? "remembered" : "forgotten");
        fs::copy_file(copy, again);
        if (!remembered) {
            dominoSim({"lose", server.root(), "names.nsf"});
            fs::copy_file(copy, server.data("names.nsf"));
            fs::remove_all(server.root() + "/state/instances");
        }
        ASSERT_EQ(recover({again}, kKeepDbiid, moment), (Outcome{0, 0}));
        EXPECT_EQ(show(again)["digest"], live["digest"]);
        putInPlace(server, again, "names.nsf");
        EXPECT_NE(show(server.data("names.nsf"))["dbiid"], live["dbiid"]);
        EXPECT_EQ(backupNeeded(server, "names.nsf"), 5114);
    }
}

} // namespace
} // namespace simulator_tests
