// The executable, end to end, with the module of fake_module/ in its child process.

#include "client/catalogue.h"
#include "client/store/store.h"
#include "tests/client/run_client.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace qrtln {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;
using test::Environment;
using test::Outcome;
using test::read_file;
using test::run_client;
using test::snapshot;
using test::write_file;
using testing::HasSubstr;
using testing::Not;

class Commands : public testing::Test {
  protected:
    Commands() {
        write_file(m_ini, "Directory=" + m_data + "\nNotesProgram=/none\n");
        write_file(m_data + "/names.nsf", "names");
        write_file(m_data + "/mail/a.nsf", std::string(300'000, 'a'));
        write_file(m_data + "/server.id", "id");
        fs::create_directories(m_tmp);
    }

    Outcome backup(Environment environment = {}, std::vector<std::string> more = {}) {
        return run_client(arguments(std::move(more)), with_base(std::move(environment)));
    }
    std::vector<std::string> arguments(std::vector<std::string> more) const {
        std::vector<std::string> all = {"backup", "--notes-ini", m_ini, "--store",
                                        m_store,  "--tmp-dir",   m_tmp};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    Environment with_base(Environment environment) const {
        environment.try_emplace("FAKE_DATA", m_data);
        environment.try_emplace("FAKE_JOURNAL", m_journal);
        return environment;
    }
    // Runs a backup that must fail without a trace: in the store, the index and TMP_DIR.
    Outcome failing_backup(Environment environment, std::vector<std::string> more = {}) {
        auto before = snapshot(m_store);
        Outcome outcome = backup(std::move(environment), std::move(more));
        auto after = snapshot(m_store);
        // What was prepared is owed from now on; all else is as before.
        for (auto* state : {&before, &after})
            state->erase("/runtime/owed.jsonl");
        EXPECT_EQ(after, before);
        EXPECT_TRUE(fs::is_empty(m_tmp));
        EXPECT_THAT(journal(), Not(HasSubstr("STATUS=0")));
        return outcome;
    }
    Outcome command(std::vector<std::string> words) const {
        words.insert(words.end(), {"--store", m_store});
        return run_client(words, {});
    }
    json shown() const {
        Outcome outcome = command({"show", "latest", "--json"});
        EXPECT_EQ(outcome.exit_code, 0) << outcome.errors;
        return json::parse(outcome.output);
    }
    json item(const std::string& path) const {
        json document = shown();
        for (const json& item : document["items"])
            if (item["path"] == path)
                return item;
        return {};
    }
    std::string journal() const { return read_file(m_journal); }
    // A backup that hangs in the module, in the copy of names.nsf.
    std::unique_ptr<test::RunningClient> hanging_backup(std::vector<std::string> more = {}) const {
        std::string mark = m_scratch / "mark";
        fs::remove(m_journal);
        fs::remove(mark);
        auto client = std::make_unique<test::RunningClient>(
            arguments(std::move(more)),
            with_base({{"FAKE_HANG", "names.nsf"}, {"FAKE_HANG_MARK", mark}}));
        for (int i = 0; i < 2000 && !fs::exists(mark); ++i)
            std::this_thread::sleep_for(5ms);
        EXPECT_TRUE(fs::exists(mark));
        return client;
    }
    std::string content_of(const json& item) const {
        auto store = open_directory_store(m_store, StoreAccess::read);
        std::string content;
        ObjectCheck check = store->read_object(item.at("object"), [&](Bytes bytes) {
            content.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        });
        EXPECT_EQ(check.problem, "");
        return content;
    }

    test::ScratchFolder m_scratch;
    std::string m_data = m_scratch / "data";
    std::string m_ini = m_scratch / "notes.ini";
    std::string m_store = m_scratch / "store";
    std::string m_tmp = m_scratch / "tmp";
    std::string m_journal = m_scratch / "journal";
};

TEST_F(Commands, BackupStoresTheWholeSystemAndPassesStatus0Last) {
    ::chmod((m_data + "/mail/a.nsf").c_str(), 0640);
    write_file(m_scratch / "logs/S1.TXN", "log one");
    write_file(m_scratch / "logs/S2.TXN", "log two");
    write_file(m_scratch / "logs/nlogctrl.lfh", "control");
    Outcome outcome = backup({{"FAKE_LOGS", m_scratch / "logs"}});
    ASSERT_EQ(outcome.exit_code, 0) << outcome.errors;
    EXPECT_THAT(outcome.output, HasSubstr("complete"));
    EXPECT_THAT(outcome.output, HasSubstr("2 databases, 7 items"));
    EXPECT_EQ(outcome.errors, "noise on standard output\nnoise on standard output\n"
                              "noise on standard output\nnoise on standard output\n"
                              "noise on standard output\nnoise on standard output\n");
    json database = item(m_data + "/mail/a.nsf");
    EXPECT_EQ(database["kind"], "database");
    EXPECT_EQ(database["mode"], 0640);
    EXPECT_EQ(content_of(database), std::string(300'000, 'a'));
    EXPECT_EQ(item(m_data + "/mail")["kind"], "directory");
    EXPECT_EQ(item(m_scratch / "logs/S1.TXN")["log"]["active"], false);
    EXPECT_EQ(item(m_scratch / "logs/S2.TXN")["log"]["active"], true);
    EXPECT_EQ(item(m_scratch / "logs/nlogctrl.lfh")["kind"], "log_control");
    // The data directory has no notes.ini: the one in use is stored.
    EXPECT_EQ(content_of(item(m_ini)), read_file(m_ini));
    EXPECT_TRUE(journal().ends_with("close STATUS=0\n"));
    EXPECT_THAT(journal(), HasSubstr("DATABASE=NOTES\n"));
    EXPECT_EQ(read_file(m_store + "/runtime/index.ini"), "new\n");
    EXPECT_TRUE(fs::is_empty(m_tmp));
    EXPECT_EQ(command({"verify"}).exit_code, 0);
}

// Regression: the second copy of such a log was passed over, and the server then removed the log.
TEST_F(Commands, LogThatFillsUpAfterItWasTheActiveOneIsStoredWhole) {
    write_file(m_scratch / "logs/S1.TXN", "part");
    write_file(m_scratch / "logs/S2.TXN", "next");
    write_file(m_scratch / "logs/nlogctrl.lfh", "control");
    ASSERT_EQ(
        backup({{"FAKE_LOGS", m_scratch / "logs"}, {"FAKE_LOG_FILLS", " and rest"}}).exit_code, 0);
    json log = item(m_scratch / "logs/S1.TXN");
    EXPECT_EQ(content_of(log), "part and rest");
    EXPECT_EQ(log["log"]["active"], false);
    EXPECT_THAT(command({"verify"}).output, Not(HasSubstr("note: "))); // the part is gone
    json document = shown();
    EXPECT_EQ(std::count_if(document["items"].begin(), document["items"].end(),
                            [](const json& item) { return item["kind"] == "log"; }),
              2);
}

TEST_F(Commands, SecondBackupAddsNothingButAManifest) {
    ASSERT_EQ(backup().exit_code, 0);
    auto before = snapshot(m_store);
    Outcome outcome = backup({}, {"--json", "--level", "copy"});
    ASSERT_EQ(outcome.exit_code, 0);
    EXPECT_EQ(json::parse(outcome.output)["new_bytes"], 0);
    EXPECT_THAT(journal(), HasSubstr("init 1 0\n"));
    EXPECT_EQ(snapshot(m_store).size(), before.size() + 1);
    json sets = json::parse(command({"list", "--json"}).output)["sets"];
    ASSERT_EQ(sets.size(), 2U);
    EXPECT_EQ(sets[1]["level"], "copy");
}

TEST_F(Commands, ArgumentsSelectAndOneThatSelectsNothingIsNamed) {
    write_file(m_data + "/[x].nsf", "odd");
    write_file(m_data + "/list", "a name like a command");
    ASSERT_EQ(backup({}, {"[x].nsf", "mail"}).exit_code, 0);
    EXPECT_THAT(journal(), HasSubstr("DATABASE=QRTLN:" + m_data + "/\\[x].nsf\n"));
    EXPECT_TRUE(item(m_data + "/names.nsf").is_null());
    EXPECT_FALSE(item(m_data + "/[x].nsf").is_null());

    write_file(m_data + "/readme.txt", "no database");
    Outcome nothing = backup({}, {"mail/a.nsf", "readme.txt"});
    EXPECT_EQ(nothing.exit_code, 3);
    EXPECT_THAT(nothing.errors, HasSubstr("'readme.txt' selected nothing"));

    fs::remove(m_journal);
    Outcome missing = failing_backup({}, {"mail/a.nsf", "mail/none.nsf"});
    EXPECT_EQ(missing.exit_code, 1);
    EXPECT_THAT(missing.errors, HasSubstr("'mail/none.nsf'"));
    EXPECT_EQ(journal(), "");
}

TEST_F(Commands, ItemsThatCannotBeStoredFailAloneAndTheServerHearsOfIt) {
    ::mkfifo((m_data + "/pipe.nsf").c_str(), 0600);
    write_file(m_data + "/gone.nsf", "x");
    Outcome outcome =
        backup({{"FAKE_FAIL", "names.nsf"}, {"FAKE_VANISH", "gone.nsf"}, {"FAKE_WARN", "a.nsf"}},
               {"--json"});
    EXPECT_EQ(outcome.exit_code, 3);
    json document = json::parse(outcome.output);
    EXPECT_EQ(document["status"], "incomplete");
    ASSERT_EQ(document["failed"].size(), 3U);
    EXPECT_THAT(document["failed"].dump(), HasSubstr("it is in use"));
    EXPECT_THAT(document["failed"].dump(), HasSubstr("a FIFO"));
    EXPECT_THAT(document["failed"].dump(), HasSubstr("it is gone"));
    EXPECT_THAT(item(m_data + "/mail/a.nsf")["warnings"].dump(),
                AllOf(HasSubstr("not transaction-logged"), HasSubstr("zeros stand for the rest")));
    EXPECT_TRUE(journal().ends_with("close STATUS=1\n"));
    EXPECT_THAT(journal(), HasSubstr("finish 3 " + m_data + "/names.nsf\n"));
    EXPECT_THAT(journal(), Not(HasSubstr("prepare " + m_data + "/pipe.nsf")));
    EXPECT_FALSE(fs::exists(m_store + "/runtime/index.ini"));
    // Two attempts, not more.
    std::string calls = journal();
    std::string prepare = "prepare " + m_data + "/names.nsf\n";
    std::size_t first = calls.find(prepare);
    std::size_t second = calls.find(prepare, first + 1);
    EXPECT_NE(second, std::string::npos);
    EXPECT_EQ(calls.find(prepare, second + 1), std::string::npos);

    // The server counts as saved what it handed out before its list broke: so do we.
    document = json::parse(backup({{"FAKE_GET_FAIL", "4"}}, {"--json"}).output);
    EXPECT_EQ(document["status"], "incomplete");
    EXPECT_THAT(document["failed"].dump(),
                AllOf(HasSubstr("the list broke"), HasSubstr("it was not reached")));
    EXPECT_TRUE(journal().ends_with("close STATUS=1\n"));
}

// The server removes a log that is stored: half of one must not count.
TEST_F(Commands, FileThatChangesWhileItIsReadHasFailedUnlessItMayGrow) {
    const std::string log = m_scratch / "logs/S1.TXN";
    write_file(m_scratch / "logs/S2.TXN", "active");
    write_file(m_scratch / "logs/nlogctrl.lfh", "control");
    const struct {
        const char* how;
        std::string file;
        int exit_code;
    } cases[] = {{"FAKE_GROW", m_data + "/big.id", 0},
                 {"FAKE_SHRINK", m_data + "/big.id", 3},
                 {"FAKE_SHRINK", m_data + "/names.nsf", 3}, // its copy
                 {"FAKE_GROW", log, 3}};
    for (const auto& test : cases) {
        SCOPED_TRACE(test.how + test.file);
        write_file(log, "full");
        write_file(test.file, "x");
        fs::resize_file(test.file, 128U << 20);
        Outcome outcome =
            backup({{test.how, fs::path(test.file).filename()}, {"FAKE_LOGS", m_scratch / "logs"}});
        ASSERT_EQ(outcome.exit_code, test.exit_code) << outcome.errors;
        json stored = item(test.file);
        EXPECT_THAT(stored[test.exit_code == 0 ? "warnings" : "reason"].dump(),
                    HasSubstr("its size changed"));
        if (test.exit_code == 0) {
            EXPECT_EQ(content_of(stored).size(), stored["size"]);
        }
        write_file(test.file, "x");
    }
    for (int run = 0; run < 2; ++run) { // S0 comes first, and is known from the set before then
        write_file(log, run == 0 ? "full size" : "short");
        if (run == 0)
            write_file(m_scratch / "logs/S0.TXN", "cut off");
        else
            fs::remove(m_scratch / "logs/S0.TXN");
        EXPECT_EQ(backup({{"FAKE_LOGS", m_scratch / "logs"}}).exit_code, 3);
        EXPECT_EQ(item(run == 0 ? m_scratch / "logs/S0.TXN" : log)["reason"],
                  "it has " + std::string(run == 0 ? "7" : "5") +
                      " bytes, but the full extents of this log have 9");
        EXPECT_TRUE(journal().ends_with("close STATUS=1\n"));
    }
}

TEST_F(Commands, FailureOfTheModuleLeavesStoreAndIndexAsTheyWere) {
    const struct {
        Environment environment;
        const char* message;
        bool closed; // the module hears STATUS=1
    } cases[] = {
        {{{"FAKE_INIT_FAIL", "no server here"}}, "no server here", true},
        {{{"FAKE_GET_FAIL", "1"}}, "the list broke", true},
        {{{"FAKE_CRASH", "names.nsf"}}, "crashed with signal 6", false},
        {{{"QRTLN_MODULE", "/none/libqrtln.so"}}, "cannot load the module", false},
        {{{"QRTLN_MODULE", "/dev/null"}}, "cannot load the module", false},
    };
    for (bool with_set : {false, true}) {
        if (with_set) {
            ASSERT_EQ(backup().exit_code, 0);
            write_file(m_data + "/names.nsf", "new content");
        }
        for (const auto& test : cases) {
            SCOPED_TRACE(test.message);
            fs::remove(m_journal);
            Outcome outcome = failing_backup(test.environment, {"--json"});
            EXPECT_EQ(outcome.exit_code, 14);
            EXPECT_THAT(outcome.errors, HasSubstr(test.message));
            EXPECT_EQ(json::parse(outcome.output)["exit_code"], 14);
            EXPECT_EQ(journal().ends_with("close STATUS=1\n"), test.closed);
        }
    }
}

TEST_F(Commands, CloseThatFailsIsReportedAndKeptInTheManifest) {
    for (Environment environment :
         {Environment{{"FAKE_CLOSE_FAIL", "logs stay"}}, Environment{{"FAKE_CLOSE_CRASH", "1"}}}) {
        Outcome outcome = backup(environment);
        EXPECT_EQ(outcome.exit_code, 14);
        EXPECT_THAT(outcome.errors, HasSubstr("was stored, but the server did not close"));
        EXPECT_FALSE(shown()["close_error"].get<std::string>().empty());
        EXPECT_EQ(command({"verify"}).exit_code, 0);
        EXPECT_THAT(command({"list"}).output, HasSubstr("complete, close failed"));
        EXPECT_TRUE(fs::is_empty(m_tmp));
    }
}

TEST_F(Commands, SignalDuringAHangingPrepareEndsTheRunCleanly) {
    ::signal(SIGHUP, SIG_IGN); // as nohup does
    for (int signal : {SIGTERM, SIGINT}) {
        auto client = hanging_backup({"--json"});
        ::kill(client->pid(), SIGHUP);
        ::kill(client->pid(), signal);
        Outcome outcome = client->wait();
        EXPECT_EQ(outcome.exit_code, 128 + signal) << outcome.errors;
        EXPECT_EQ(json::parse(outcome.output)["exit_code"], 128 + signal);
        EXPECT_THAT(journal(), HasSubstr("finish 3 " + m_data + "/names.nsf\nclose STATUS=1\n"));
        EXPECT_FALSE(fs::exists(m_store));
        EXPECT_TRUE(fs::is_empty(m_tmp));
    }
}

TEST_F(Commands, WhatAKilledRunOwesIsSavedFirstItsCopiesGoAndOnlyWhatIsStoredIsStruckOut) {
    ASSERT_EQ(backup().exit_code, 0);
    std::string owed = m_store + "/runtime/owed.jsonl";
    std::string names = m_data + "/names.nsf";
    write_file(m_data + "/gone.nsf", "x");
    hanging_backup(); // and killed at once: its child goes on
    for (int i = 0; i < 2000 && !journal().ends_with("close STATUS=1\n"); ++i)
        std::this_thread::sleep_for(5ms);
    EXPECT_TRUE(journal().ends_with("close STATUS=1\n")) << journal();
    EXPECT_FALSE(fs::is_empty(m_tmp));
    EXPECT_THAT(read_file(owed), HasSubstr(names));
    fs::remove(m_data + "/gone.nsf");
    const struct {
        Environment environment;
        std::vector<std::string> arguments;
        int exit_code;
        bool saves_first;
        bool struck_out;
    } cases[] = {
        {{{"FAKE_FAIL", "names.nsf"}}, {"--level", "incr"}, 3, true, false},
        // The failure of the first operation is told, the second goes on.
        {{{"FAKE_INIT_FAIL", "no server"}}, {"--level", "copy"}, 14, true, false},
        {{{"FAKE_FAIL", "names.nsf"}}, {}, 3, false, false}, // takes it anyway
        {{}, {"--level", "diff", "mail"}, 0, true, true},
        {{}, {"--level", "diff", "mail"}, 0, false, true},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.arguments));
        Outcome outcome;
        do { // the child of the killed run may hold the lock for a moment longer
            fs::remove(m_journal);
            outcome = backup(test.environment, test.arguments);
        } while (outcome.exit_code == 11);
        EXPECT_EQ(outcome.exit_code, test.exit_code) << outcome.errors;
        EXPECT_TRUE(fs::is_empty(m_tmp)); // also what the killed one left
        std::string first = journal().substr(0, journal().find("close"));
        EXPECT_EQ(first.find("init 1 1\n") == 0 &&
                      first.find("DATABASE=QRTLN:" + names + "\n") != std::string::npos,
                  test.saves_first)
            << first;
        EXPECT_EQ(read_file(owed).find(names) == std::string::npos, test.struck_out);
        EXPECT_THAT(read_file(owed), Not(HasSubstr("gone.nsf")));
    }
    json sets = json::parse(command({"list", "--json"}).output)["sets"];
    EXPECT_EQ(std::count_if(sets.begin(), sets.end(),
                            [](const json& set) {
                                return set["reason"] == "owed" && set["level"] == "full" &&
                                       !set["whole_system"];
                            }),
              2);
    write_file(owed, "[]\n");
    Outcome damaged = backup();
    EXPECT_EQ(damaged.exit_code, 1);
    EXPECT_THAT(damaged.errors, HasSubstr("line 1 of " + owed + " is damaged"));
}

TEST_F(Commands, FullDisksAreToldApartAndLeaveNothing) {
    test::SmallFileSystem small(m_scratch / "small", 256 << 10);
    if (!small.mounted())
        GTEST_SKIP() << "mounting a small file system needs root";
    // The room is too small for mail/a.nsf: known before anything starts.
    std::string tmp = m_tmp;
    m_tmp = m_scratch / "small";
    Outcome no_room = failing_backup({});
    EXPECT_EQ(no_room.exit_code, 1);
    EXPECT_THAT(no_room.errors, HasSubstr("300000 bytes"));
    EXPECT_THAT(no_room.errors, HasSubstr("hint: "));
    EXPECT_EQ(journal(), "");

    m_tmp = tmp;
    m_store = m_scratch / "small/store";
    std::string noise;
    for (unsigned value = 1; noise.size() < 1'000'000; value = value * 1664525 + 1013904223)
        noise += static_cast<char>(value >> 24);
    write_file(m_data + "/server.id", noise);
    Outcome full = failing_backup({});
    EXPECT_EQ(full.exit_code, 1);
    EXPECT_THAT(full.errors, HasSubstr("No space left on device"));
    EXPECT_THAT(full.errors, HasSubstr("hint: make room"));
    EXPECT_TRUE(journal().ends_with("close STATUS=1\n"));
    EXPECT_TRUE(fs::is_empty(m_scratch / "small"));
}

TEST_F(Commands, WrongPlacesAndUsesHaveTheirExitCodes) {
    write_file(m_scratch / "other/file", "x");
    fs::create_directories(m_scratch / "bare");
    write_file(m_scratch / "bare.ini", "Directory=" + m_scratch / "bare" + "\n");
    write_file(m_scratch / "relative.ini", "Directory=data\n");
    write_file(m_scratch / "lost/sets/20231114T221320Z-full.json", "x"); // store.json is gone
    std::string none = m_scratch / "none";
    const struct {
        std::vector<std::string> arguments;
        int exit_code;
        const char* says = "";
    } cases[] = {
        {{}, 2},
        {{"backup"}, 2},
        {{"backup", "--store", m_store}, 2},
        {arguments({"--level", "weekly"}), 2},
        {{"mend"}, 2, "there is no command 'mend'"},
        {{"bakcup"}, 2, "did you mean 'backup'?"},
        {{"list", "--stroe", m_store}, 2, "did you mean '--store'?"},
        {{"documents", "delted", "--store", m_store}, 2, "did you mean 'deleted'?"},
        {{"help", "backup"}, 0},
        {{"--version"}, 0},
        {{"backup", "--help"}, 0},
        {{"list", "--store", none}, 10},
        {{"show", "latest", "--store", none}, 10},
        {{"verify", "--store", m_scratch / "other"}, 10},
        {{"verify", "--store", m_scratch / "other/file"}, 10},
        {{"verify", "--store", m_scratch / "bare"}, 10}, // empty
        {{"verify", "--store", m_scratch / "lost"}, 10},
        {{"backup", "--notes-ini", m_ini, "--store", m_scratch / "lost"}, 10},
        {{"backup", "--notes-ini", m_ini, "--store", none + "/deep"}, 1},
        {{"backup", "--notes-ini", m_ini, "--store", m_scratch / "other"}, 10},
        {{"backup", "--notes-ini", none, "--store", m_store}, 14},
        {{"backup", "--notes-ini", m_scratch / "bare.ini", "--store", m_store}, 14},
        {{"backup", "--notes-ini", m_scratch / "relative.ini", "--store", m_store}, 14},
        {arguments({"--tmp-dir", m_data}), 2}, // given twice
        {{"backup", "--notes-ini", m_ini, "--store", m_store, "--tmp-dir", m_data}, 1},
        {{"backup", "--notes-ini", m_ini, "--store", m_store, "--tmp-dir", none}, 1},
        {{"backup", "--notes-ini", m_ini, "--store", m_data + "/deep/store"},
         1,
         "is inside the data directory"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.arguments));
        Outcome outcome = run_client(test.arguments, with_base({}));
        EXPECT_EQ(outcome.exit_code, test.exit_code) << outcome.errors;
        EXPECT_THAT(outcome.errors, HasSubstr(test.says));
        EXPECT_FALSE(fs::exists(m_store));
    }
    ASSERT_EQ(backup().exit_code, 0);
    EXPECT_EQ(command({"show", "2001"}).exit_code, 1);
    EXPECT_EQ(run_client({"list"}, {{"QRTLN_STORE", m_store}}).exit_code, 0);
    auto lock = open_directory_store(m_store, StoreAccess::write);
    Outcome locked = backup();
    EXPECT_EQ(locked.exit_code, 11);
    EXPECT_THAT(locked.errors, HasSubstr("process " + std::to_string(::getpid())));
    EXPECT_EQ(command({"verify"}).exit_code, 0); // one writer, any readers
}

TEST_F(Commands, VerifyNamesWhatIsDamagedAndWhatItConcerns) {
    ASSERT_EQ(backup().exit_code, 0);
    std::string object = item(m_data + "/mail/a.nsf")["object"];
    std::string file = m_store + "/objects/" + object.substr(0, 2) + "/" + object + ".zst";
    std::string good = read_file(file);
    write_file(file, good.substr(0, good.size() / 2));
    Outcome cut = command({"verify"});
    EXPECT_EQ(cut.exit_code, 4);
    EXPECT_THAT(cut.output, HasSubstr(object));
    EXPECT_THAT(cut.output, HasSubstr(": " + m_data + "/mail/a.nsf\n"));
    fs::remove(file);
    json missing = json::parse(command({"verify", "latest", "--json"}).output);
    EXPECT_EQ(missing["damage"][0]["problem"], "is missing");
    write_file(file, good);

    std::string set = json::parse(command({"list", "--json"}).output)["sets"][0]["set"];
    std::string manifest = m_store + "/sets/" + set + ".json";
    std::string text = read_file(manifest);
    write_file(manifest, text + " ");
    EXPECT_EQ(command({"verify"}).exit_code, 4);
    EXPECT_EQ(command({"show", "latest"}).exit_code, 4);
    Outcome listed = command({"list"});
    EXPECT_EQ(listed.exit_code, 4);
    EXPECT_THAT(listed.output, HasSubstr("damaged"));
    write_file(manifest, text);

    write_file(m_store + "/objects/00/stray", "x");
    write_file(m_store + "/sets/notes.json", "x");
    Outcome whole = command({"verify"});
    EXPECT_EQ(whole.exit_code, 0) << whole.output;
    EXPECT_THAT(whole.output, HasSubstr("objects/00/stray is no object"));
    EXPECT_THAT(whole.output, HasSubstr("sets/notes.json is of no set"));
    write_file(m_store + "/store.json", "{}");
    EXPECT_EQ(command({"verify"}).exit_code, 4);
}

} // namespace
} // namespace qrtln
