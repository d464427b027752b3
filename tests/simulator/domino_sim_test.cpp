// domino-sim: its exit codes and what check finds.
#include "support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace simulator_tests {
namespace {

using ::testing::HasSubstr;

TEST(DominoSim, TellsUsageErrorsFromFailures) {
    const TestServer server;
    const std::vector<std::pair<std::vector<std::string>, int>> cases = {
        {{"--help"}, 0},
        {{}, 2},
        {{"nonsense"}, 2},
        {{"init", (server.folder / "x").string(), "--style", "spiral"}, 2},
        {{"init", (server.folder / "x").string(), "--extent-size", "10"}, 2},
        {{"init", server.root()}, 1},
        {{"put", (server.folder / "nowhere").string(), "names.nsf"}, 1},
        {{"put", server.root(), "missing.nsf"}, 1},
        {{"create", server.root(), "names.nsf"}, 1},
        {{"delete", server.root(), "names.nsf", "5"}, 1},
        {{"show", server.root(), "names.nsf"}, 0},
    };
    for (const auto& [arguments, exitCode] : cases) {
        std::vector<std::string> command = {DOMINO_SIM};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const RunResult result = run(command);
        EXPECT_EQ(result.exitCode, exitCode) << ::testing::PrintToString(arguments);
        EXPECT_FALSE(result.output.empty()) << ::testing::PrintToString(arguments);
    }
}

class Check : public ::testing::Test {
  protected:
    Check() {
        Workload workload(server, "names.nsf");
        for (int i = 0; i < 5; ++i) {
            workload.awaitCommit();
        }
        workload.stop();
        fs::copy_file(server.data("names.nsf"), copy);
    }

    RunResult check(const std::string& database, int expectedExit) {
        return dominoSim({"check", copy.string(), "--database", database, "--manifest",
                          (server.folder / "manifest.json").string(), "--server", server.root()},
                         expectedExit);
    }

    TestServer server;
    fs::path copy = server.folder / "copy.nsf";
};

TEST_F(Check, WantsTheCommitOfTheLastStop) {
    EXPECT_THAT(check("names.nsf", 4).output, HasSubstr("no backup of names.nsf"));
    ASSERT_NO_FATAL_FAILURE(backUp("names.nsf", server.data("names.nsf"), copy, {}));
    check("names.nsf", 0);
    dominoSim({"put", server.root(), "names.nsf", "--manifest",
               (server.folder / "manifest.json").string()});
    fs::copy_file(server.data("names.nsf"), copy, fs::copy_options::overwrite_existing);
    EXPECT_THAT(check("names.nsf", 4).output, HasSubstr("the backup was stopped at"));
}

TEST_F(Check, FindsAChangeThatTheManifestDoesNotHave) {
    dominoSim({"put", server.root(), "names.nsf"});
    fs::copy_file(server.data("names.nsf"), copy, fs::copy_options::overwrite_existing);
    EXPECT_THAT(check("names.nsf", 4).output, HasSubstr("the manifest has"));
}

TEST_F(Check, FindsAnotherDatabaseAndDamage) {
    check("mail.box", 1); // the manifest has nothing of it
    fs::copy_file(server.data("mail/user1.nsf"), copy, fs::copy_options::overwrite_existing);
    check("names.nsf", 4);
    dominoSim({"damage", copy.string()});
    check("names.nsf", 4);
    fs::resize_file(copy, 10);
    check("names.nsf", 4);
}

} // namespace
} // namespace simulator_tests
