// The backup protocol: what a copy is worth with and without its change information.
#include "support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace fs = std::filesystem;

namespace simulator_tests {
namespace {

constexpr const char* kDatabase = "mail/user1.nsf";

constexpr int kTriesInRound = 20;

// A round has a server and a workload of its own; NOTES_SIM_LONG_TESTS=1 makes ten of them.
int rounds() {
    return std::getenv("NOTES_SIM_LONG_TESTS") != nullptr ? 10 : 1;
}

int checkCopy(const TestServer& server, const Workload& workload, const fs::path& copy,
              std::string* why) {
    const RunResult result = run({DOMINO_SIM, "check", copy.string(), "--database", kDatabase,
                                  "--manifest", workload.manifest(), "--server", server.root()});
    *why = result.output;
    return result.exitCode;
}

TEST(BackupUnderWriters, CopyWithChangesAppliedIsExactlyTheDatabaseAtTheStop) {
    constexpr DWORD kInfoBuffers[] = {32768, 997, 4096, 100003, 65536};
    for (int round = 0; round < rounds(); ++round) {
        const TestServer server;
        Workload workload(server, kDatabase, 2);
        for (int i = 0; i < kTriesInRound; ++i) {
            const fs::path copy = server.folder / "copy.nsf";
            CopySteps steps;
            steps.infoBuffer = kInfoBuffers[i % 5];
            steps.between = [&] { workload.awaitCommit(); };
            ASSERT_NO_FATAL_FAILURE(backUp(kDatabase, server.data(kDatabase), copy, steps));
            std::string why;
            ASSERT_EQ(checkCopy(server, workload, copy, &why), 0)
                << "round " << round << ", try " << i << ": " << why;
        }
    }
}

TEST(BackupUnderWriters, CopyWithoutItsChangesIsTornOrLacksNotesInMostTries) {
    int bad = 0;
    int torn = 0;
    for (int round = 0; round < rounds(); ++round) {
        const TestServer server;
        Workload workload(server, kDatabase, 2);
        for (int i = 0; i < kTriesInRound; ++i) {
            const fs::path copy = server.folder / "copy.nsf";
            CopySteps steps;
            steps.applyChanges = false;
            steps.between = [&] { workload.awaitCommit(); };
            ASSERT_NO_FATAL_FAILURE(backUp(kDatabase, server.data(kDatabase), copy, steps));
            std::string why;
            const int exitCode = checkCopy(server, workload, copy, &why);
            ASSERT_TRUE(exitCode == 0 || exitCode == 4) << why;
            bad += exitCode == 4 ? 1 : 0;
            torn += why.find("integrity check failed") != std::string::npos ? 1 : 0;
        }
    }
    RecordProperty("bad", bad);
    RecordProperty("torn", torn);
    EXPECT_GT(bad, rounds() * kTriesInRound * 3 / 4);
    EXPECT_GT(torn, rounds() * kTriesInRound / 4);
}

TEST(BackupOfQuietDatabase, TakesChangesInPiecesOfAnySize) {
    const TestServer server;
    const fs::path copy = server.folder / "copy.nsf";
    for (const DWORD size : {1U, 2U, 15U, 17U, 4095U}) {
        CopySteps steps;
        steps.infoBuffer = size;
        steps.chunk = 1 << 20;
        steps.between = [&] { dominoSim({"put", server.root(), kDatabase, "--text", "short"}); };
        ASSERT_NO_FATAL_FAILURE(backUp(kDatabase, server.data(kDatabase), copy, steps));
        EXPECT_TRUE(readFile(copy) == readFile(server.data(kDatabase))) << size;
    }
}

TEST(BackupOfQuietDatabase, IsTheSameBytesWhateverIsApplied) {
    const TestServer server;
    const fs::path copy = server.folder / "copy.nsf";
    ASSERT_NO_FATAL_FAILURE(backUp(kDatabase, server.data(kDatabase), copy, {}));
    EXPECT_TRUE(readFile(copy) == readFile(server.data(kDatabase)));
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

class ChangeInfo : public ::testing::Test {
  protected:
    /// Copies the database, changes it meanwhile, and fetches the change information.
    void fetch() {
        DWORD low = 0;
        DWORD high = 0;
        ASSERT_EQ(NSFBackupStart(db.handle, 0, &context, &low, &high), 0);
        fs::copy_file(server.data(kDatabase), copy);
        dominoSim({"put", server.root(), kDatabase, "--count", "3"});
        ASSERT_EQ(NSFBackupStop(db.handle, context), 0);
        ASSERT_EQ(NSFBackupGetChangeInfoSize(db.handle, context, 0, &low, &high), 0);
        info.resize(low);
        DWORD filled = 0;
        ASSERT_EQ(NSFBackupGetNextChangeInfo(db.handle, context, 0, info.data(), low, &filled), 0);
        ASSERT_EQ(filled, low);
    }

    DHANDLE startApply() {
        DHANDLE apply = 0;
        std::string path = copy.string();
        EXPECT_EQ(NSFBackupStartApplyChangeInfo(&apply, path.data(), 0,
                                                static_cast<DWORD>(info.size()), 0),
                  0);
        return apply;
    }

    TestServer server;
    OpenDb db{kDatabase};
    DHANDLE context = 0;
    fs::path copy = server.folder / "copy.nsf";
    std::vector<BYTE> info;
};

TEST_F(ChangeInfo, IsRefusedWhenItsEndIsMissing) {
    ASSERT_NO_FATAL_FAILURE(fetch());
    for (const std::size_t missing : {std::size_t{1}, std::size_t{5000}, info.size()}) {
        const DHANDLE apply = startApply();
        const auto length = static_cast<DWORD>(info.size() - missing);
        EXPECT_EQ(NSFBackupApplyNextChangeInfo(apply, 0, info.data(), length), 0);
        EXPECT_NE(NSFBackupEndApplyChangeInfo(apply, 0), 0) << missing;
        EXPECT_EQ(NotesSimOutstanding(NOTES_SIM_APPLY_CONTEXTS), 0U);
    }
}

TEST_F(ChangeInfo, IsRefusedWhenAByteIsWrong) {
    ASSERT_NO_FATAL_FAILURE(fetch());
    info[info.size() / 2] ^= 1;
    const DHANDLE apply = startApply();
    EXPECT_NE(NSFBackupApplyNextChangeInfo(apply, 0, info.data(), static_cast<DWORD>(info.size())),
              0);
    EXPECT_NE(NSFBackupEndApplyChangeInfo(apply, 0), 0);
}

TEST_F(ChangeInfo, IsFrozenAtTheStop) {
    ASSERT_NO_FATAL_FAILURE(fetch());
    const auto atStop = dominoSimJson({"show", server.root(), kDatabase});
    dominoSim({"put", server.root(), kDatabase, "--count", "5"});
    const DHANDLE apply = startApply();
    ASSERT_EQ(NSFBackupApplyNextChangeInfo(apply, 0, info.data(), static_cast<DWORD>(info.size())),
              0);
    ASSERT_EQ(NSFBackupApplyNextChangeInfo(apply, 0, info.data(), 0), 0);
    ASSERT_EQ(NSFBackupEndApplyChangeInfo(apply, 0), 0);
    EXPECT_EQ(dominoSimJson({"show", copy.string()})["digest"], atStop["digest"]);
}

// The variant without a copy names the database itself: it must not be set back to the stop.
TEST_F(ChangeInfo, AppliedToTheDatabaseItselfLosesNothing) {
    ASSERT_NO_FATAL_FAILURE(fetch());
    dominoSim({"put", server.root(), kDatabase, "--count", "5"});
    const auto before = dominoSimJson({"show", server.root(), kDatabase});
    copy = server.data(kDatabase);
    const DHANDLE apply = startApply();
    ASSERT_EQ(NSFBackupApplyNextChangeInfo(apply, 0, info.data(), static_cast<DWORD>(info.size())),
              0);
    ASSERT_EQ(NSFBackupEndApplyChangeInfo(apply, 0), 0);
    EXPECT_EQ(dominoSimJson({"show", server.root(), kDatabase})["digest"], before["digest"]);
}

TEST_F(ChangeInfo, BeforeTheStopIsAnError) {
    DWORD low = 0;
    DWORD high = 0;
    ASSERT_EQ(NSFBackupStart(db.handle, 0, &context, &low, &high), 0);
    EXPECT_NE(NSFBackupGetChangeInfoSize(db.handle, context, 0, &low, &high), 0);
    EXPECT_NE(NSFBackupEnd(db.handle, context, 0), 0);
    EXPECT_EQ(NotesSimOutstanding(NOTES_SIM_BACKUP_CONTEXTS), 1U);
    EXPECT_EQ(NSFBackupEnd(db.handle, context, 1), 0);
}

TEST(BackupContext, ThatIsOpenAnswers3748OnceAndIsClearedThroughItsHandle) {
    const TestServer server;
    ASSERT_TRUE(inKilledProcess([&] {
        DBHANDLE db = 0;
        DHANDLE context = 0;
        DWORD size[2] = {};
        return NSFDbOpen(kDatabase, &db) == 0 &&
               NSFBackupStart(db, 0, &context, &size[0], &size[1]) == 0;
    }));
    const OpenDb db(kDatabase);
    DHANDLE context = 0;
    DWORD size[2] = {};
    EXPECT_EQ(NSFBackupStart(db.handle, 0, &context, &size[0], &size[1]), 3748);
    EXPECT_NE(context, 0U);
    EXPECT_EQ(NotesSimOutstanding(NOTES_SIM_BACKUP_CONTEXTS), 0U) << "it is another process's";
    EXPECT_EQ(NSFBackupEnd(db.handle, context, 1), 0);
    ASSERT_EQ(NSFBackupStart(db.handle, 0, &context, &size[0], &size[1]), 0);

    // While it lives, the next one meets the same answer, and takes it away from its owner.
    DHANDLE second = 0;
    EXPECT_EQ(NSFBackupStart(db.handle, 0, &second, &size[0], &size[1]), 3748);
    EXPECT_EQ(NSFBackupEnd(db.handle, second, 1), 0);
    EXPECT_NE(NSFBackupStop(db.handle, context), 0);
    EXPECT_NE(NSFBackupEnd(db.handle, context, 0), 0);
    EXPECT_EQ(NotesSimOutstanding(NOTES_SIM_BACKUP_CONTEXTS), 0U);
}

TEST(BackupContext, OfThisProcessEndsUnfinishedWithTheRuntime) {
    const TestServer server;
    DBHANDLE db = 0;
    DHANDLE context = 0;
    DWORD size[2] = {};
    ASSERT_EQ(NSFDbOpen(kDatabase, &db), 0);
    ASSERT_EQ(NSFBackupStart(db, 0, &context, &size[0], &size[1]), 0);
    NotesTerm();
    EXPECT_EQ(NotesSimOutstanding(NOTES_SIM_DATABASES), 0U);
    ASSERT_EQ(server.start(), 0);
    ASSERT_EQ(NSFDbOpen(kDatabase, &db), 0);
    EXPECT_EQ(NSFBackupStart(db, 0, &context, &size[0], &size[1]), 0);
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
    EXPECT_EQ(needed, 1U);
    EXPECT_EQ(NSFIsNewBackupNeeded(name.data(), 65536, &needed), 0);
    EXPECT_EQ(needed, 0U);

    dominoSim({"compact", server.root(), kDatabase});
    EXPECT_EQ(NSFIsNewBackupNeeded(name.data(), 0, &needed), 5114);
    dominoSim({"saved", server.root(), kDatabase});
    EXPECT_EQ(NSFIsNewBackupNeeded(name.data(), 0, &needed), 0);
}

TEST(BackupNeeded, StaysWhenABackupIsGivenUp) {
    const TestServer server;
    std::string name = server.data(kDatabase).string();
    const OpenDb db(kDatabase);
    DHANDLE context = 0;
    DWORD size[2] = {};
    ASSERT_EQ(NSFBackupStart(db.handle, 0, &context, &size[0], &size[1]), 0);
    ASSERT_EQ(NSFBackupStop(db.handle, context), 0);
    ASSERT_EQ(NSFBackupEnd(db.handle, context, 1), 0);
    DWORD needed = 0;
    EXPECT_EQ(NSFIsNewBackupNeeded(name.data(), 0, &needed), 5114);
}

TEST(Compact, IsRefusedWhileABackupRuns) {
    const TestServer server;
    const OpenDb db(kDatabase);
    DHANDLE context = 0;
    DWORD size[2] = {};
    ASSERT_EQ(NSFBackupStart(db.handle, 0, &context, &size[0], &size[1]), 0);
    dominoSim({"compact", server.root(), kDatabase}, 1);
    ASSERT_EQ(NSFBackupEnd(db.handle, context, 1), 0);
    dominoSim({"compact", server.root(), kDatabase});
}

} // namespace
} // namespace simulator_tests
