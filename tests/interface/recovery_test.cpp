// Recoveries at the module's interface, over the simulator.
#include <csignal>
#include <ctime>
#include <gmock/gmock.h>

#include "tests/interface/module_host.h"
#include "tests/interface/own_process.h"

namespace {

using ::testing::HasSubstr;

namespace fs = std::filesystem;

// A server with extents enough of its log, and a store of what its databases once were.
class RecoveringClient {
  public:
    RecoveringClient() {
        for (const char* name : {kFirst, kSecond, kThird}) {
            server.markSaved(name);
            store(name);
        }
    }

    static constexpr char kFirst[] = "names.nsf";
    static constexpr char kSecond[] = "mail/user1.nsf";
    static constexpr char kThird[] = "mail/user2.nsf";

    // Takes the present content of a database into the store.
    void store(const std::string& name) const { copy(server.data(name), "store/" + name); }
    // As a restore leaves it: the stored content under TMP_DIR, or below a relocation directory.
    std::string pend(const std::string& name, const std::string& below = "tmp/") const {
        copy(server.folder.file("store/" + name), below + name);
        return server.folder.file(below + name);
    }
    void put(const std::string& name, const std::string& text) const {
        server.simulate("put " + server.server() + " " + name + " --text " + text);
    }

    // What users see in a sound database, without what depends on the file's place.
    std::string shown(const std::string& file) const {
        const std::string output = server.folder.file("shown");
        const std::string command = QRTLN_DOMINO_SIM " show --ids " + file +
                                    " | grep -v -e ^file: -e ^offline: -e ^dbiid: -e ^last > " +
                                    output;
        EXPECT_EQ(std::system(command.c_str()), 0) << file;
        const std::string text = server.folder.read("shown");
        EXPECT_THAT(text, HasSubstr("integrity: ok"));
        return text;
    }
    std::string live(const std::string& name) const { return shown(server.data(name)); }
    // Runs a recovery of databases, as DB_InitOperation does it all.
    int recover(const std::vector<std::string>& names, std::vector<std::string> variables) {
        for (const std::string& name : names) {
            variables.push_back("DATABASE=" +
                                (name == "NOTES" ? name : "QRTLN:" + server.data(name)));
        }
        variables.emplace_back("RECOVERY=YES");
        const int result = module.open(server, DB_TYPE_RST, DB_LEVEL_FULL, variables);
        error = module.error();
        EXPECT_EQ(server.calls("NotesTerm("),
                  result == DB_NUM_I_COMPLETE ? 0 : server.calls("NotesInitExtended("))
            << "the runtime stays up after a success alone";
        char szItem[1028] = "/x.nsf";
        EXPECT_EQ(module.SetItem(DB_ITEM_TYPE_FILE, szItem), DB_NUM_E_FAILED)
            << "nothing is restored through a recovery";
        EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
        return result;
    }

    bool toldRecovered(const std::string& name) const {
        return Module::logged("ROLLFORWARD: recovered [" + server.data(name) + "]");
    }

    SimulatedServer server;
    Module module;
    std::string error; // of the pending error

  private:
    void copy(const std::string& from, const std::string& to) const {
        const fs::path target = server.folder.file(to);
        fs::create_directories(target.parent_path());
        fs::copy_file(from, target, fs::copy_options::overwrite_existing);
    }
};

constexpr const char* kFirst = RecoveringClient::kFirst;
constexpr const char* kSecond = RecoveringClient::kSecond;
constexpr const char* kThird = RecoveringClient::kThird;

TEST(Recovery, RolledForwardDatabasesEqualTheirLastCommit) {
    inOwnProcess([] {
        RecoveringClient client;
        client.put(kFirst, "later");
        client.put(kSecond, "later");
        client.server.fillLog();
        const std::string first = client.live(kFirst);
        const std::string second = client.live(kSecond);
        client.server.simulate("damage " + client.server.data(kFirst));
        fs::remove_all(client.server.data("mail"));
        for (const char* name : {kFirst, kSecond, kThird}) {
            client.pend(name);
        }
        EXPECT_EQ(client.recover({kFirst, kSecond}, {"ROLLFORWARD=YES"}), DB_NUM_I_COMPLETE)
            << client.error;
        EXPECT_EQ(client.live(kFirst), first);
        EXPECT_EQ(client.live(kSecond), second);
        EXPECT_THAT(client.server.filesBelow("tmp"), ::testing::ElementsAre(kThird))
            << "not selected";
        EXPECT_TRUE(client.toldRecovered(kFirst) && client.toldRecovered(kSecond));
        client.put(kFirst, "used"); // fails for a database that is offline
        client.put(kSecond, "used");
    });
}

TEST(Recovery, RolledForwardToAMomentLaterChangesAreGone) {
    inOwnProcess([] {
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        RecoveringClient client;
        client.put(kFirst, "wanted");
        const std::string wanted = client.live(kFirst);
        // A whole second that is past, and then a change after it.
        const time_t moment = std::time(nullptr) + 1;
        while (std::time(nullptr) <= moment) {
            usleep(10'000);
        }
        client.put(kFirst, "unwanted");
        ASSERT_NE(client.live(kFirst), wanted);
        client.pend(kFirst);
        struct tm local;
        localtime_r(&moment, &local);
        char digits[32];
        std::strftime(digits, sizeof digits, "%Y%m%d%H%M%S", &local);
        EXPECT_EQ(client.recover({kFirst}, {std::string("ROLLFORWARD=") + digits}),
                  DB_NUM_I_COMPLETE)
            << client.error;
        EXPECT_EQ(client.live(kFirst), wanted);
    });
}

TEST(Recovery, RelocatedCopiesAreRolledForwardBesideTheLiveDatabases) {
    inOwnProcess([] {
        RecoveringClient client;
        client.put(kSecond, "later");
        const std::string second = client.live(kSecond);
        const std::string root = client.server.folder.makeDirectory("r");
        const std::string copy = client.pend(kSecond, "r" + client.server.data(""));
        EXPECT_EQ(client.recover({kSecond}, {"ROLLFORWARD=YES", "INFO=-R \"" + root + "\""}),
                  DB_NUM_I_COMPLETE)
            << client.error;
        EXPECT_EQ(client.shown(copy), second);
        EXPECT_TRUE(Module::logged("ROLLFORWARD: recovered [" + copy + "]"));
        EXPECT_EQ(client.server.calls("NSFTakeDatabaseOffline("), 0);
        EXPECT_EQ(client.live(kSecond), second);
    });
}

// A task of the server that has a database open.
class DatabaseUser {
  public:
    DatabaseUser(const SimulatedServer& server, const char* name) {
        const std::string folder = server.server();
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        m_process = fork();
        if (m_process == 0) {
            dup2(ends[1], STDOUT_FILENO);
            execl(QRTLN_DOMINO_SIM, QRTLN_DOMINO_SIM, "hold", folder.c_str(), name, nullptr);
            _exit(127);
        }
        close(ends[1]);
        char line[256];
        EXPECT_GT(read(ends[0], line, sizeof line), 0) << "it is not open";
        close(ends[0]);
    }
    ~DatabaseUser() {
        kill(m_process, SIGTERM);
        waitpid(m_process, nullptr, 0);
    }
    DatabaseUser(const DatabaseUser&) = delete;
    DatabaseUser& operator=(const DatabaseUser&) = delete;

  private:
    pid_t m_process;
};

TEST(Recovery, DatabasesInUseAreLeftOutAndTheOthersRecovered) {
    inOwnProcess([] {
        RecoveringClient client;
        for (const char* name : {kFirst, kSecond, kThird}) {
            client.pend(name);
            client.put(name, "later");
        }
        const std::string third = client.live(kThird);
        client.server.simulate("damage " + client.server.data(kThird));
        const std::string busy = client.live(kFirst);
        {
            const DatabaseUser first(client.server, kFirst);
            const DatabaseUser second(client.server, kSecond);
            EXPECT_EQ(client.recover({kFirst, kSecond, kThird}, {"ROLLFORWARD=YES"}),
                      DB_NUM_I_COMPLETE)
                << client.error;
        }
        EXPECT_EQ(client.live(kThird), third);
        EXPECT_EQ(client.live(kFirst), busy);
        EXPECT_EQ(client.server.filesBelow("tmp").size(), 2u);
        EXPECT_TRUE(client.toldRecovered(kThird));
        for (const char* name : {kFirst, kSecond}) {
            EXPECT_TRUE(Module::logged("ROLLFORWARD: NOT recovered [" + client.server.data(name) +
                                       "]: the database is in use"));
        }
        EXPECT_NE(client.error, "");
    });
}

TEST(Recovery, AfterAFailureTheOriginalsAreOnlineAndTheCopiesThere) {
    for (const bool lostLog : {false, true}) {
        SCOPED_TRACE(lostLog);
        inOwnProcess([&] {
            RecoveringClient client;
            client.server.fillLog();
            const std::string before = client.live(kSecond);
            const std::string log = client.server.server() + "/logs/S0000002.TXN";
            if (lostLog) {
                fs::rename(log, log + ".away");
            } else {
                setenv("NOTES_SIM_FAULTS", "NSFRecoverDatabases=513", 1);
            }
            for (const char* name : {kFirst, kSecond}) {
                client.pend(name);
            }
            EXPECT_EQ(client.recover({kFirst, kSecond}, {"ROLLFORWARD=YES"}), DB_NUM_E_FAILED);
            EXPECT_THAT(client.error, HasSubstr("RecoverDb(): the recovery failed: "));
            EXPECT_EQ(Module::logged("ROLLFORWARD: missing transaction log [" + log + "]"),
                      lostLog);
            EXPECT_EQ(client.server.filesBelow("tmp").size(), 2u);
            for (const char* name : {kFirst, kSecond}) {
                EXPECT_FALSE(client.toldRecovered(name));
                client.put(name, "used"); // fails for a database that is offline
            }
            EXPECT_NE(client.live(kSecond), before);
        });
    }
}

TEST(Recovery, WithoutRollForwardNothingIsRecovered) {
    for (const char* selection : {kFirst, "NOTES"}) {
        SCOPED_TRACE(selection);
        inOwnProcess([&] {
            RecoveringClient client;
            client.pend(kFirst);
            client.put(kFirst, "later");
            const std::string before = client.live(kFirst);
            EXPECT_EQ(client.recover({selection}, {}), DB_NUM_E_FAILED);
            EXPECT_EQ(client.error,
                      std::string(selection) == kFirst
                          ? ""
                          : "getNotesFileList(): There are no files matching requested patterns");
            EXPECT_EQ(client.server.calls("NSFRecoverDatabases("), 0);
            EXPECT_EQ(client.live(kFirst), before);
            EXPECT_TRUE(client.server.folder.exists("tmp/names.nsf"));
        });
    }
}

TEST(Recovery, RolledForwardTheWholeSystemIsRecoveredWhereItLies) {
    inOwnProcess([] {
        RecoveringClient client;
        client.put(kSecond, "later");
        const std::string second = client.live(kSecond);
        fs::copy_file(client.server.folder.file(std::string("store/") + kSecond),
                      client.server.data(kSecond), fs::copy_options::overwrite_existing);
        ASSERT_NE(client.live(kSecond), second);
        EXPECT_EQ(client.recover({"NOTES"}, {"ROLLFORWARD=YES"}), DB_NUM_I_COMPLETE)
            << client.error;
        EXPECT_EQ(client.live(kSecond), second);
    });
}

TEST(Recovery, AWrongTimeStartsNothing) {
    inOwnProcess([] {
        RecoveringClient client;
        client.pend(kFirst);
        EXPECT_EQ(client.recover({kFirst}, {"ROLLFORWARD=20240231000000"}), DB_NUM_E_FAILED);
        EXPECT_EQ(client.error, "ROLLFORWARD=20240231000000: there is no such date or time");
        EXPECT_TRUE(client.server.journal().empty());
    });
}

} // namespace
