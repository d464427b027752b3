// The backup protocol: what a copy is worth with and without its change information.
#include "tests/simulator/support.h"

#include <cstdlib>

namespace simulator_tests {
namespace {

const std::string kDatabase = "mail/user1.nsf";

// A round has a server and a workload of its own.
struct Rounds {
    int count, tries;
};
const Rounds kRounds =
    std::getenv("NOTES_SIM_LONG_TESTS") != nullptr ? Rounds{10, 20} : Rounds{1, 8};

TEST(BackupUnderWriters, CopyIsExactWithItsChangesAndTornOrStaleWithoutThemInMostTries) {
    constexpr DWORD kInfoBuffers[] = {32768, 997, 17, 100003, 65536};
    int bad = 0;
    int torn = 0;
    for (int round = 0; round < 3 * kRounds.count; ++round) {
        const bool apply = round % 3 != 1;
        const bool before = round % 3 == 2;
        const TestServer server(before ? "--strict before" : "");
        Workload workload(server, kDatabase, 2);
        for (int i = 0; i < kRounds.tries / (before ? 2 : 1); ++i) {
            const std::string copy = server.folder.file("copy.nsf");
            const CopySteps steps = {.applyChanges = apply,
                                     .infoBuffer = kInfoBuffers[i % 5],
                                     .chunksPerMark = before ? 4U : 0U,
                                     .between = [&] { workload.awaitCommit(); }};
            ASSERT_NO_FATAL_FAILURE(backUp(server, kDatabase, copy, steps));
            const std::string check = "check " + copy + " --database " + kDatabase +
                                      " --manifest " + workload.manifest() + " --server " +
                                      server.root();
            const auto result = qrtln::test::Program(dominoSimWords(check)).wait();
            ASSERT_TRUE(result.exit_code == 0 || (!apply && result.exit_code == 4))
                << "round " << round << ", try " << i << ": " << result.output;
            bad += result.exit_code == 4 ? 1 : 0;
            torn += result.output.find("integrity check failed") != std::string::npos ? 1 : 0;
        }
    }
    std::printf("%d copies exact; of %d without the change information %d torn, %d stale\n",
                kRounds.count * kRounds.tries * 3 / 2, kRounds.count * kRounds.tries, torn,
                bad - torn);
    EXPECT_GT(bad, kRounds.count * kRounds.tries * 3 / 4);
    EXPECT_GT(torn, kRounds.count * kRounds.tries / 4);
}

class ChangeInfo : public ::testing::Test {
  protected:
    // Copies the database, changes it meanwhile, and fetches the change information.
    void fetch() {
        DWORD low = 0;
        DWORD high = 0;
        fs::copy_file(server.data(kDatabase), copy);
        server.command("put", kDatabase + " --count 3");
        ASSERT_EQ(NSFBackupStop(db, backup.context), 0);
        ASSERT_EQ(NSFBackupGetChangeInfoSize(db, backup.context, 0, &low, &high), 0);
        info.resize(low);
        DWORD filled = 0;
        ASSERT_EQ(NSFBackupGetNextChangeInfo(db, backup.context, 0, info.data(), low, &filled), 0);
        ASSERT_EQ(filled, low);
    }

    // Applies the first bytes of it to a file; the answers to the piece and to the end.
    std::pair<STATUS, STATUS> applyTo(std::string file, std::size_t length) {
        DHANDLE apply = 0;
        EXPECT_EQ(NSFBackupStartApplyChangeInfo(&apply, file.data(), 0,
                                                static_cast<DWORD>(info.size()), 0),
                  0);
        const STATUS piece =
            NSFBackupApplyNextChangeInfo(apply, 0, info.data(), static_cast<DWORD>(length));
        const STATUS end = NSFBackupEndApplyChangeInfo(apply, 0);
        EXPECT_EQ(NotesSimOutstanding(NOTES_SIM_APPLY_CONTEXTS), 0U);
        return {piece, end};
    }

    TestServer server;
    OpenBackup backup{kDatabase};
    DBHANDLE db = backup.database.handle;
    std::string copy = server.folder.file("copy.nsf");
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

TEST(BackupContext, ThatIsOpenAnswers3748OnceAndIsClearedThroughItsHandle) {
    const TestServer server;
    EXPECT_EXIT(
        {
            const OpenBackup backup(kDatabase);
            raise(backup.status == 0 ? SIGKILL : SIGTERM);
        },
        ::testing::KilledBySignal(SIGKILL), "");
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

} // namespace
} // namespace simulator_tests
