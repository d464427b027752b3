// Faults, and the journal that shows them.
#include "support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

namespace simulator_tests {
namespace {

using ::testing::HasSubstr;

TEST(Faults, HitTheNamedCallOnly) {
    const TestServer server;
    ASSERT_EQ(NotesSimSetFaults("NSFDbOpen#2=513,NSFDbClose=0x1FF"), 0);
    DBHANDLE db = 0;
    EXPECT_EQ(NSFDbOpen("names.nsf", &db), 0);
    DBHANDLE second = 0;
    EXPECT_EQ(NSFDbOpen("names.nsf", &second), 513);
    EXPECT_EQ(NSFDbOpen("names.nsf", &second), 0);
    EXPECT_EQ(NSFDbClose(db), 0x1FF);
    EXPECT_EQ(NSFDbClose(second), 0x1FF);
    EXPECT_EQ(NotesSimFaultsFired(), 3U);
    EXPECT_EQ(NotesSimOutstanding(NOTES_SIM_DATABASES), 2U) << "a failed call does nothing";
    EXPECT_EQ(NotesSimSetFaults(""), 0);
    EXPECT_EQ(NotesSimFaultsFired(), 0U);
}

TEST(Faults, WithWrongSyntaxChangeNothing) {
    const TestServer server;
    ASSERT_EQ(NotesSimSetFaults("NSFDbOpen=513"), 0);
    for (const char* text :
         {"NSFDbOpen", "NSFDbOpen=", "NSFDbOpen=x", "NSFDbOpen#0=5", "NSFDbOpen#x=5", "=5",
          "NSFDbOpen=0", "NSFDbOpen=99999", "NSFDbOpen=5,", ",", "NSF DbOpen=5"}) {
        EXPECT_NE(NotesSimSetFaults(text), 0) << text;
    }
    EXPECT_NE(NotesSimSetFaults(nullptr), 0);
    DBHANDLE db = 0;
    EXPECT_EQ(NSFDbOpen("names.nsf", &db), 513);
}

// The environment is read once in a process: a program of its own shows it.
TEST(Faults, OfTheEnvironmentReachAnotherProgram) {
    const TemporaryFolder folder;
    const std::string root = (folder / "server").string();
    const std::string journal = (folder / "journal").string();
    dominoSim({"init", root});
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    const auto child = [&](const char* faults) {
        return run({"/usr/bin/env", std::string("NOTES_SIM_FAULTS=") + faults,
                    "NOTES_SIM_JOURNAL=" + journal, "SIMULATOR_TEST_SERVER=" + root, self,
                    "--gtest_filter=FaultsChild.*", "--gtest_also_run_disabled_tests"})
            .exitCode;
    };
    EXPECT_EQ(child("NSFDbOpen#1=513"), 0);
    EXPECT_THAT(readFile(journal), HasSubstr("NSFDbOpen(\"names.nsf\") -> 513 [fault]\n"
                                             "NSFDbOpen(\"missing\\nline.nsf\") -> 259\n"
                                             "NotesTerm() -> 0\n-- faults fired: 1\n"));
    EXPECT_NE(child("NSFDbOpen=wrong"), 0);
    EXPECT_THAT(readFile(journal), HasSubstr("-> 16142"));
}

TEST(FaultsChild, DISABLED_OpensADatabase) {
    const char* root = std::getenv("SIMULATOR_TEST_SERVER");
    ASSERT_NE(root, nullptr) << "only runs as the child of another test";
    std::string program = "test";
    std::string ini = std::string("=") + root + "/notes.ini";
    char* argv[] = {program.data(), ini.data(), nullptr};
    ASSERT_EQ(NotesInitExtended(2, argv), 0);
    DBHANDLE db = 0;
    EXPECT_EQ(NSFDbOpen("names.nsf", &db), 513);
    EXPECT_EQ(NSFDbOpen("missing\nline.nsf", &db), 259);
    NotesTerm();
}

} // namespace
} // namespace simulator_tests
