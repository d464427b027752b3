// The backup protocol: what a copy is worth with and without its change information.
#include "support.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace fs = std::filesystem;

namespace simulator_tests {
namespace {

constexpr const char* kDatabase = "mail/user1.nsf";

constexpr int kTriesInRound = 20;

// A round has a server and a workload of its own; NOTES_SIM_LONG_TESTS=1 makes ten of them.
int rounds() {
    return std::getenv("NOTES_SIM_LONG_TESTS") != nullptr ? 10 : 1;
}

TEST(BackupUnderWriters, CopyIsExactWithItsChangesAndTornOrStaleWithoutThemInMostTries) {
    constexpr DWORD kInfoBuffers[] = {32768, 997, 17, 100003, 65536};
    int bad = 0;
    int torn = 0;
    for (int round = 0; round < 3 * rounds(); ++round) {
        const bool apply = round % 3 != 1;
        const bool before = round % 3 == 2;
        const TestServer server({"--strict", before ? "before" : ""});
        Workload workload(server, kDatabase, 2);
        for (int i = 0; i < kTriesInRound / (before ? 2 : 1); ++i) {
            const fs::path copy = server.folder / "copy.nsf";
            CopySteps steps;
            steps.applyChanges = apply;
            steps.chunksPerMark = before ? 4 : 0;
            steps.infoBuffer = kInfoBuffers[i % 5];
            steps.between = [&] { workload.awaitCommit(); };
            ASSERT_NO_FATAL_FAILURE(backUp(kDatabase, server.data(kDatabase), copy, steps));
            const RunResult result =
                run({DOMINO_SIM, "check", copy.string(), "--database", kDatabase, "--manifest",
                     workload.manifest(), "--server", server.root()});
            ASSERT_TRUE(result.exitCode == 0 || (!apply && result.exitCode == 4))
                << "round " << round << ", try " << i << ": " << result.output;
            bad += result.exitCode == 4 ? 1 : 0;
            torn += result.output.find("integrity check failed") != std::string::npos ? 1 : 0;
        }
    }
    RecordProperty("bad", bad);
    RecordProperty("torn", torn);
    EXPECT_GT(bad, rounds() * kTriesInRound * 3 / 4);
    EXPECT_GT(torn, rounds() * kTriesInRound / 4);
}

// A transaction too large for the cache writes pages before it commits. When its process dies, the
// next opener cuts the file and writes old pages back: all of it belongs to the changes.
TEST(BackupOverARollback, CopyIsExactAlthoughPagesWereWrittenBackAndCutOff) {
    const TestServer server;
    const fs::path copy = server.folder / "copy.nsf";
    const std::string before = readFile(server.data(kDatabase));
    CopySteps steps;
    bool crashed = false;
    steps.between = [&] {
        if (!crashed) {
            crashed = true;
            dominoSim(
                {"put", server.root(), kDatabase, "--count", "300", "--crash", "half-written"},
                1009);
            EXPECT_GT(fs::file_size(server.data(kDatabase)), before.size());
        }
    };
    ASSERT_NO_FATAL_FAILURE(backUp(kDatabase, server.data(kDatabase), copy, steps));
    EXPECT_TRUE(readFile(copy) == readFile(server.data(kDatabase)));
    EXPECT_EQ(dominoSimJson({"show", copy.string()})["integrity"], "ok");
}

// A half-written transaction is in the file until somebody opens it, and in no copy after that.
TEST(BackupOverARollback, BeginsOnlyWhenNoTransactionIsHalfInPlace) {
    const TestServer server({"--style", "none"});
    const std::string before = readFile(server.data(kDatabase));
    dominoSim({"put", server.root(), kDatabase, "--count", "300", "--crash", "half-written"}, 1009);
    EXPECT_FALSE(readFile(server.data(kDatabase)) == before);
    const fs::path copy = server.folder / "copy.nsf";
    ASSERT_NO_FATAL_FAILURE(backUp(kDatabase, server.data(kDatabase), copy, {}));
    EXPECT_TRUE(readFile(copy) == before);
}

// As of the start, size and what the server remembers included, whatever of it was read already.
TEST(BackupInTheMoodBefore, IsTheDatabaseAtTheStartByteForByteAlsoWhenItShrinksMeanwhile) {
    const TestServer server({"--strict", "before"});
    const RunResult put = dominoSim({"put", server.root(), kDatabase, "--count", "300"});
    std::vector<std::string> words{"delete", server.root(), kDatabase};
    std::istringstream ids(put.output);
    std::copy(std::istream_iterator<std::string>(ids), {}, std::back_inserter(words));
    dominoSim(words);
    const fs::path copy = server.folder / "copy.nsf";
    std::string before;
    CopySteps steps;
    steps.chunksPerMark = 1;
    steps.between = [&] {
        if (!before.empty()) {
            dominoSim({"put", server.root(), kDatabase, "--count", "9"});
            return;
        }
        before = readFile(server.data(kDatabase));
        sqlite3* database = nullptr;
        sqlite3_open_v2(server.data(kDatabase).c_str(), &database, SQLITE_OPEN_READWRITE,
                        "notes-simulator");
        EXPECT_EQ(sqlite3_exec(database, "VACUUM", nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(database);
        EXPECT_LT(fs::file_size(server.data(kDatabase)), before.size());
    };
    ASSERT_NO_FATAL_FAILURE(backUp(kDatabase, server.data(kDatabase), copy, steps));
    EXPECT_TRUE(readFile(copy) == before);
    std::string name = server.data(kDatabase).string();
    DWORD needed = 0;
    EXPECT_EQ(NSFIsNewBackupNeeded(name.data(), 0, &needed), 0);
    EXPECT_GT(needed, 0U) << "what was logged during the copy is not in it";
}

class ChangeInfo : public ::testing::Test {
  protected:
    /// Copies the database, changes it meanwhile, and fetches the change information.
    void fetch() {
        DWORD low = 0;
        DWORD high = 0;
        fs::copy_file(server.data(kDatabase), copy);
        dominoSim({"put", server.root(), kDatabase, "--count", "3"});
        ASSERT_EQ(NSFBackupStop(db, backup.context), 0);
        ASSERT_EQ(NSFBackupGetChangeInfoSize(db, backup.context, 0, &low, &high), 0);
        info.resize(low);
        DWORD filled = 0;
        ASSERT_EQ(NSFBackupGetNextChangeInfo(db, backup.context, 0, info.data(), low, &filled), 0);
        ASSERT_EQ(filled, low);
    }

    /// Applies the first bytes of it to a file; the answers to the piece and to the end.
    std::pair<STATUS, STATUS> applyTo(const fs::path& file, std::size_t length) {
        DHANDLE apply = 0;
        std::string path = file.string();
        EXPECT_EQ(NSFBackupStartApplyChangeInfo(&apply, path.data(), 0,
                                                static_cast<DWORD>(info.size()), 0),
                  0);
        const STATUS piece =
            NSFBackupApplyNextChangeInfo(apply, 0, info.data(), static_cast<DWORD>(length));
        const STATUS end = NSFBackupEndApplyChangeInfo(apply, 0);
        EXPECT_EQ(NotesSimOutstanding(NOTES_SIM_APPLY_CONTEXTS), 0U);
        return {piece, end};
    }

    std::string digestOf(const std::vector<std::string>& arguments) {
        return dominoSimJson(arguments)["digest"];
    }

    TestServer server;
    OpenBackup backup{kDatabase};
    DBHANDLE db = backup.database.handle;
    fs::path copy = server.folder / "copy.nsf";
    std::vector<BYTE> info;
};

TEST_F(ChangeInfo, IsRefusedWhenItsEndIsMissingOrAByteIsWrong) {
    ASSERT_NO_FATAL_FAILURE(fetch());
    for (const std::size_t missing : {std::size_t{1}, std::size_t{5000}, info.size()}) {
        const auto [piece, end] = applyTo(copy, info.size() - missing);
        EXPECT_EQ(piece, 0);
        EXPECT_NE(end, 0) << missing;
    }
    info[info.size() / 2] ^= 1;
    const auto [piece, end] = applyTo(copy, info.size());
    EXPECT_TRUE(piece != 0 && end != 0);
}

// The variant without a copy names the database itself: it must not be set back to the stop.
TEST_F(ChangeInfo, IsFrozenAtTheStopAndSetsTheDatabaseItselfNotBack) {
    ASSERT_NO_FATAL_FAILURE(fetch());
    const std::string atStop = digestOf({"show", server.root(), kDatabase});
    dominoSim({"put", server.root(), kDatabase, "--count", "5"});
    const std::string now = digestOf({"show", server.root(), kDatabase});
    EXPECT_EQ(applyTo(copy, info.size()), (std::pair<STATUS, STATUS>{0, 0}));
    EXPECT_EQ(digestOf({"show", copy.string()}), atStop);
    EXPECT_EQ(applyTo(server.data(kDatabase), info.size()), (std::pair<STATUS, STATUS>{0, 0}));
    EXPECT_EQ(digestOf({"show", server.root(), kDatabase}), now);
}

TEST_F(ChangeInfo, BeforeTheStopIsAnErrorAndABackupGivenUpStaysNeeded) {
    DWORD low = 0;
    EXPECT_NE(NSFBackupGetChangeInfoSize(db, backup.context, 0, &low, &low), 0);
    EXPECT_NE(backup.end(0), 0);
    EXPECT_EQ(NotesSimOutstanding(NOTES_SIM_BACKUP_CONTEXTS), 1U);
    dominoSim({"compact", server.root(), kDatabase}, 1);
    ASSERT_EQ(NSFBackupStop(db, backup.context), 0);
    EXPECT_EQ(backup.end(1), 0);
    dominoSim({"compact", server.root(), kDatabase});
    std::string name = server.data(kDatabase).string();
    EXPECT_EQ(NSFIsNewBackupNeeded(name.data(), 0, &low), 5114);
}

TEST(BackupContext, ThatIsOpenAnswers3748OnceAndIsClearedThroughItsHandle) {
    const TestServer server;
    ASSERT_TRUE(inKilledProcess([] { return OpenBackup(kDatabase).status == 0; }));
    OpenBackup first(kDatabase);
    EXPECT_EQ(first.status, 3748);
    EXPECT_NE(first.context, 0U);
    EXPECT_EQ(NotesSimOutstanding(NOTES_SIM_BACKUP_CONTEXTS), 0U) << "it is another process's";
    EXPECT_EQ(first.end(1), 0);
    ASSERT_EQ(first.start(), 0);

    // While it lives, the next one meets the same answer, and takes it away from its owner.
    const OpenBackup second(kDatabase);
    EXPECT_EQ(second.status, 3748);
    EXPECT_EQ(second.end(1), 0);
    EXPECT_NE(NSFBackupStop(first.database.handle, first.context), 0);
    EXPECT_NE(first.end(0), 0);
    EXPECT_EQ(NotesSimOutstanding(NOTES_SIM_BACKUP_CONTEXTS), 0U);
}

TEST(BackupNeeded, FollowsBackupsLogAndDbiid) {
    const TestServer server;
    std::string name = server.data(kDatabase).string();
    DWORD needed = 7;
    EXPECT_EQ(NSFIsNewBackupNeeded(name.data(), 0, &needed), 5114);

    ASSERT_NO_FATAL_FAILURE(backUp(kDatabase, server.data(kDatabase), server.folder / "c", {}));
    EXPECT_EQ(NSFIsNewBackupNeeded(name.data(), 0, &needed), 0);
    EXPECT_EQ(needed, 0U);

    dominoSim({"put", server.root(), "names.nsf", "--text", std::string(3000, 'x')});
    EXPECT_EQ(NSFIsNewBackupNeeded(name.data(), 0, &needed), 0);
    EXPECT_GT(needed, 3000U);
    EXPECT_LT(needed, 4000U);
    EXPECT_EQ(NSFIsNewBackupNeeded(name.data(), 1000, &needed), 0);
    EXPECT_EQ(needed, 1U) << "more than that";
    EXPECT_EQ(NSFIsNewBackupNeeded(name.data(), 65536, &needed), 0);
    EXPECT_EQ(needed, 0U);

    dominoSim({"compact", server.root(), kDatabase});
    EXPECT_EQ(NSFIsNewBackupNeeded(name.data(), 0, &needed), 5114);
    dominoSim({"saved", server.root(), kDatabase});
    EXPECT_EQ(NSFIsNewBackupNeeded(name.data(), 0, &needed), 0);
}

} // namespace
} // namespace simulator_tests
